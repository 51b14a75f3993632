// Conversion between multi-byte and 16-bit text: the services against one bulk call of iconv, one
// call of iconv a character, ICU with a kept converter, and GLib.
//
// The library chooses its code page once, when it is started, so it is loaded anew for each page.
#include <dlfcn.h>
#include <iconv.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <memory>

#include "harness.h"
#include "osal/osal.h"
#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_ICU
#include <unicode/ucnv.h>
#endif

namespace {

using bench::Contender;
using bench::keep;

// The library of its own code page.
class Library {
  public:
    explicit Library(const char* page) {
        setenv("TESSEL_CODE_PAGE", page, 1);
        library_ = dlopen(OSAL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (library_ == nullptr) fail();
        symbol<decltype(DllStart)>("DllStart")();
        void* factory = nullptr;
        symbol<decltype(DllGetClassObject)>("DllGetClassObject")(
            symbol<const GUID>("CLSID_OrvaneOsal"), symbol<const GUID>("IID_IClassFactory"),
            &factory);
        auto* classes = static_cast<LCM_IClassFactory*>(factory);
        if (classes == nullptr) fail();
        void* made = nullptr;
        classes->lpVtbl->CreateInstance(classes, nullptr, symbol<const GUID>("IID_IOrvaneOsal_1"),
                                        &made);
        osal_ = static_cast<PIOsal>(made);
    }
    ~Library() {
        osal_->lpVtbl->Release(osal_);
        symbol<decltype(DllStop)>("DllStop")();
        dlclose(library_);
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    operator PIOsal() const { return osal_; }
    const IOsalVtbl* operator->() const { return osal_->lpVtbl; }

  private:
    template <class Type>
    Type* symbol(const char* name) {
        return reinterpret_cast<Type*>(dlsym(library_, name));
    }
    [[noreturn]] static void fail() {
        std::fprintf(stderr, "the library does not start\n");
        std::exit(1);
    }
    void* library_;
    PIOsal osal_ = nullptr;
};

// ---- texts ----

struct Sample {
    const char* name;
    const char* page;    // as the library and iconv name it
    UINT32 code_page;    // as the services are told it
    const char* phrase;  // UTF-8
};

const Sample kSamples[] = {
    {"ASCII, WINDOWS-1252", "WINDOWS-1252", KX_CODE_PAGE_OEM,
     "The quick brown fox jumps over the lazy dog, again and again. "},
    {"Western, WINDOWS-1252", "WINDOWS-1252", KX_CODE_PAGE_OEM,
     "Zwölf Boxkämpfer jagen Viktor quer über den großen Sylter Deich; déjà vu à la carte. "},
    {"Cyrillic, WINDOWS-1251", "WINDOWS-1251", KX_CODE_PAGE_OEM,
     "Съешь же ещё этих мягких французских булок, да выпей чаю. "},
    {"Japanese, SJIS", "SJIS", KX_CODE_PAGE_OEM,
     "いろはにほへと ちりぬるを 我が世誰ぞ 常ならむ。東京特許許可局。"},
    {"ASCII, UTF-8", "UTF-8", KX_CODE_PAGE_UTF8,
     "The quick brown fox jumps over the lazy dog, again and again. "},
    {"Mixed, UTF-8", "UTF-8", KX_CODE_PAGE_UTF8,
     "Plain text, größer und schöner, Съешь же ещё, いろはにほへと, 3 €. "},
};

std::string converted(const char* to, const char* from, const std::string& text) {
    iconv_t converter = iconv_open(to, from);
    std::string result(text.size() * 4 + 16, '\0');
    char* in = const_cast<char*>(text.data());
    char* out = result.data();
    std::size_t left = text.size(), room = result.size();
    if (iconv(converter, &in, &left, &out, &room) == std::size_t(-1)) {
        std::perror("iconv");
        std::exit(1);
    }
    iconv_close(converter);
    result.resize(result.size() - room);
    return result;
}

// A text in both forms, of about so many units.
struct Text {
    std::string bytes;
    std::vector<WCHAR> units;
    std::vector<UINT32> starts;  // of each character in bytes, and the end

    Text(const Sample& sample, std::size_t length) {
        std::string phrases, utf16;
        do {
            phrases += sample.phrase;
            utf16 = converted("UTF-16LE", "UTF-8", phrases);
        } while (utf16.size() / 2 < length && phrases.size() < 4096);
        while (utf16.size() / 2 < length)
            utf16 += utf16;
        utf16.resize(length * 2);
        units.resize(length);
        std::memcpy(units.data(), utf16.data(), utf16.size());
        bytes = converted(sample.page, "UTF-16LE", utf16);
        find_starts(sample.page);
    }

  private:
    void find_starts(const char* page) {
        UINT32 at = 0;
        for (WCHAR unit : units) {
            starts.push_back(at);
            at += length_of(page, unit);
        }
        starts.push_back(at);
    }
    static UINT32 length_of(const char* page, WCHAR unit) {
        if (unit < 0x80) return 1;
        if (std::strcmp(page, "UTF-8") == 0) return unit < 0x800 ? 2 : 3;
        return std::strcmp(page, "SJIS") == 0 ? 2 : 1;
    }
};

// ---- contenders ----

// A converter of iconv, kept or opened anew.
class Iconv {
  public:
    Iconv(const char* to, const char* from) : converter_(iconv_open(to, from)) {}
    ~Iconv() { iconv_close(converter_); }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    std::size_t convert(const void* in, std::size_t length, void* out, std::size_t room) {
        char* from = static_cast<char*>(const_cast<void*>(in));
        char* to = static_cast<char*>(out);
        iconv(converter_, &from, &length, &to, &room);
        return room;
    }

  private:
    iconv_t converter_;
};

template <class Once>
Contender repeated(const char* name, Once once) {
    return {name, [once](std::uint64_t n) mutable {
                for (; n != 0; --n)
                    once();
            }};
}

void check(bool right, const char* what) {
    if (right) return;
    std::fprintf(stderr, "%s gave another text\n", what);
    std::exit(1);
}

std::vector<Contender> to_wide(PIOsal osal, const Sample& sample, const Text& text,
                               std::vector<WCHAR>& out) {
    const auto length = static_cast<INT32>(text.bytes.size());
    const std::size_t room = out.size() * sizeof(WCHAR);
    auto service = [=, &text, &out] {
        auto count = static_cast<UINT32>(out.size());
        keep(osal->lpVtbl->KxMultiByteToWideChar(osal, sample.code_page, text.bytes.data(), length,
                                                 out.data(), &count));
    };
    service();
    check(std::memcmp(out.data(), text.units.data(), text.units.size() * 2) == 0,
          "KxMultiByteToWideChar");
    auto bulk = std::make_shared<Iconv>("UTF-16LE", sample.page);
    std::vector<Contender> contenders = {
        repeated("iconv, one call",
                 [=, &text, &out] {
                     keep(bulk->convert(text.bytes.data(), text.bytes.size(), out.data(), room));
                 }),
        repeated("conversion services", service),
        repeated("iconv, a call a character", [=, &text, &out] {
            Iconv each("UTF-16LE", sample.page);
            for (std::size_t i = 0; i + 1 < text.starts.size(); ++i)
                each.convert(&text.bytes[text.starts[i]], text.starts[i + 1] - text.starts[i],
                             &out[i], sizeof(WCHAR));
        })};
#ifdef HAVE_ICU
    UErrorCode error = U_ZERO_ERROR;
    UConverter* icu = ucnv_open(sample.page, &error);
    contenders.push_back(repeated("ICU, converter kept", [=, &text, &out] {
        UErrorCode status = U_ZERO_ERROR;
        keep(ucnv_toUChars(icu, reinterpret_cast<UChar*>(out.data()),
                           static_cast<INT32>(out.size()), text.bytes.data(), length, &status));
    }));
#endif
#ifdef HAVE_GLIB
    contenders.push_back(repeated("GLib", [=, &text] {
        g_free(g_convert(text.bytes.data(), length, "UTF-16LE", sample.page, nullptr, nullptr,
                         nullptr));
    }));
#endif
    return contenders;
}

std::vector<Contender> from_wide(PIOsal osal, const Sample& sample, const Text& text,
                                 std::vector<char>& out) {
    const auto length = static_cast<INT32>(text.units.size());
    const std::size_t size = text.units.size() * sizeof(WCHAR);
    auto service = [=, &text, &out] {
        auto count = static_cast<UINT32>(out.size());
        keep(osal->lpVtbl->KxWideCharToMultiByte(osal, sample.code_page, text.units.data(), length,
                                                 out.data(), &count));
    };
    service();
    check(std::memcmp(out.data(), text.bytes.data(), text.bytes.size()) == 0,
          "KxWideCharToMultiByte");
    auto bulk = std::make_shared<Iconv>(sample.page, "UTF-16LE");
    std::vector<Contender> contenders = {
        repeated("iconv, one call",
                 [=, &text, &out] {
                     keep(bulk->convert(text.units.data(), size, out.data(), out.size()));
                 }),
        repeated("conversion services", service),
        repeated("iconv, a call a character", [=, &text, &out] {
            Iconv each(sample.page, "UTF-16LE");
            for (std::size_t i = 0; i < text.units.size(); ++i)
                each.convert(&text.units[i], sizeof(WCHAR), &out[text.starts[i]], 4);
        })};
#ifdef HAVE_ICU
    UErrorCode error = U_ZERO_ERROR;
    UConverter* icu = ucnv_open(sample.page, &error);
    contenders.push_back(repeated("ICU, converter kept", [=, &text, &out] {
        UErrorCode status = U_ZERO_ERROR;
        keep(ucnv_fromUChars(icu, out.data(), static_cast<INT32>(out.size()),
                             reinterpret_cast<const UChar*>(text.units.data()), length, &status));
    }));
#endif
#ifdef HAVE_GLIB
    contenders.push_back(repeated("GLib", [=, &text] {
        g_free(g_convert(reinterpret_cast<const char*>(text.units.data()),
                         static_cast<gssize>(size), sample.page, "UTF-16LE", nullptr, nullptr,
                         nullptr));
    }));
#endif
    return contenders;
}

const std::size_t kLengths[] = {16, 64, 4096, 1'048'576};

void race(bench::Report& report, const Sample& sample) {
    Library osal(sample.page);
    for (std::size_t length : kLengths) {
        const Text text(sample, length);
        const bench::Effort effort{.divide_rounds = length > 4096 ? 8 : 2};
        const auto x = static_cast<double>(length);
        std::vector<WCHAR> units(length + 16);
        std::vector<char> bytes(text.bytes.size() + 16);
        report.race(std::string("To 16-bit: ") + sample.name, bench::count_name(length), x,
                    to_wide(osal, sample, text, units), effort);
        report.race(std::string("From 16-bit: ") + sample.name, bench::count_name(length), x,
                    from_wide(osal, sample, text, bytes), effort);
    }
}

// As KxCharUpperBuff describes itself, unit by unit.
void upper_by_unit(std::vector<WCHAR>& units) {
    for (WCHAR& unit : units)
        if (unit <= 0xFF ? std::isalnum(unit) != 0 : std::iswalnum(unit) != 0)
            unit = static_cast<WCHAR>(std::towupper(unit));
}

// Upper-cased text stays as it is, so every round does the same.
void upper(bench::Report& report, const Sample& sample) {
    Library osal(sample.page);
    for (std::size_t length : kLengths) {
        std::vector<WCHAR> units = Text(sample, length).units;
        report.race(std::string("Upper case: ") + sample.name, bench::count_name(length),
                    static_cast<double>(length),
                    {repeated("towupper, unit by unit", [&] { upper_by_unit(units); }),
                     repeated("KxCharUpperBuff",
                              [&] {
                                  keep(osal->KxCharUpperBuff(osal, static_cast<UINT32>(length),
                                                             units.data()));
                              })},
                    {.divide_rounds = length > 4096 ? 8 : 2});
    }
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"conversion", "Text conversion", "the conversion of one text",
                          "\"iconv, a call a character\" opens a converter for each text, as do "
                          "the plain steps that the services stand for; GLib does so too.",
                          "16-bit units"});
#ifndef HAVE_ICU
    report.missing("ICU");
#endif
#ifndef HAVE_GLIB
    report.missing("GLib");
#endif
    for (const Sample& sample : kSamples)
        race(report, sample);
    upper(report, kSamples[0]);
    upper(report, kSamples[2]);
    return report.finish();
}
