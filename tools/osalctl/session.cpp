#include "session.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>

#include "host/kcstatus.h"
#include "host/lcm.h"

OSAL_DEFINE_IDENTIFIERS

namespace osalctl {
namespace {

const char* advice(KCSTATUS status) {
    switch (KC_CODE(status)) {
        case KC_CODE_FAILED:
            return "; the OEM code page may lack a character, see 'osalctl codepages'";
        case KC_CODE_INVALID_HANDLE:
            return "; 'osalctl registry ls' shows what there is";
        case KC_CODE_NO_RESOURCES:
            return "; make room on the file system or in memory";
        case KC_CODE_ACCESS_DENIED:
            return "; check the rights of the registry file that TSREG_FILE names";
        case KC_CODE_TIMED_OUT:
            return "; another process keeps the registry file busy, try again";
        case KC_CODE_DAMAGED:
            return "; the system log names the registry file, restore it from a copy";
        case KC_CODE_BUSY:
            return "; it has sub-keys, delete them too with --recursive";
        default:
            return "";
    }
}

}  // namespace

Failure failure(const std::string& what, KCSTATUS status) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08X", status);
    const bool missing =
        KC_FACILITY(status) == KC_FACILITY_REGISTRY && KC_CODE(status) == KC_CODE_INVALID_HANDLE;
    return {what + ": " + (missing ? "not found" : KcStatusName(status)) + " (" +
                KcStatusFacilityName(status) + ", " + code + ")" + advice(status),
            missing ? kNotThere : kFailed};
}

void check(const std::string& what, KCSTATUS status) {
    if (KC_IS_ERROR(status)) throw failure(what, status);
}

Session::Session() {
    LcmStart(nullptr);  // a refused component matters only if it serves the class wanted here
    void* instance = nullptr;
    check("cannot load osal.so from the folder 'components' beside liblcm.so",
          LcmCreateInstance(&CLSID_OrvaneOsal, nullptr, &IID_IOrvaneOsal_1, &instance));
    osal_ = static_cast<PIOsal>(instance);
    osal_->lpVtbl->KxRegisterModuleName(osal_, "osalctl");
}

Session::~Session() {
    if (osal_ != nullptr) osal_->lpVtbl->Release(osal_);
    LcmStop();
}

std::u16string Session::wide(const std::string& text) const {
    if (text.empty()) return {};
    if (text.find('\0') != text.npos) throw Failure("text must not hold a zero byte", kUsage);
    std::u16string result(text.size() + 1, u'\0');
    auto count = static_cast<UINT32>(result.size());
    const KCSTATUS status = osal_->lpVtbl->KxMultiByteToWideChar(
        osal_, KX_CODE_PAGE_UTF8, text.data(), static_cast<INT32>(text.size()),
        reinterpret_cast<PWCHAR>(result.data()), &count);
    if (KC_IS_ERROR(status))
        throw Failure("\"" + text + "\" is not UTF-8, or has characters beyond U+FFFF", kUsage);
    result.resize(count);
    return result;
}

std::string Session::utf8(const char16_t* text, std::size_t size) const {
    if (size == 0) return {};
    std::string result(size * 3 + 1, '\0');
    auto count = static_cast<UINT32>(result.size());
    const KCSTATUS status = osal_->lpVtbl->KxWideCharToMultiByte(
        osal_, KX_CODE_PAGE_UTF8, reinterpret_cast<const WCHAR*>(text), static_cast<INT32>(size),
        result.data(), &count);
    check("cannot show a text", status);
    result.resize(count);
    return result;
}

const char* Session::own_library() const {
    Dl_info where = {};
    dladdr(reinterpret_cast<void*>(osal_->lpVtbl->KxOpenKey), &where);
    return where.dli_fname;
}

void* Session::symbol(const char* library, const char* name) {
    void* loaded = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
    void* address = loaded != nullptr ? dlsym(loaded, name) : nullptr;
    if (loaded != nullptr) dlclose(loaded);
    if (address == nullptr)
        throw Failure(std::string(library) + " has no " + name + ", which this needs");
    return address;
}

std::string normal_path(std::string path) {
    std::replace(path.begin(), path.end(), '/', '\\');
    path.erase(std::unique(path.begin(), path.end(),
                           [](char a, char b) { return a == '\\' && b == '\\'; }),
               path.end());
    if (!path.empty() && path.front() == '\\') path.erase(0, 1);
    if (!path.empty() && path.back() == '\\') path.pop_back();
    return path;
}

Key::Key(const Session& session, const std::string& path, KX_KEY_ACCESS access, bool create)
    : session_(session) {
    const auto name = session.wide(path);
    const auto service = create ? session->KxCreateKey : session->KxOpenKey;
    check((create ? "cannot make key '" : "cannot open key '") + path + "'",
          service(session.self(), units(name), access, &handle_));
}

Key::~Key() {
    if (handle_ != nullptr) session_->KxCloseKey(session_.self(), handle_);
}

Transaction::Transaction(const Session& session)
    : commit_(session.registry_function<KCSTATUS()>("TsRegCommit")),
      rollback_(session.registry_function<KCSTATUS()>("TsRegRollback")) {
    check("cannot begin to change the registry",
          session.registry_function<KCSTATUS()>("TsRegBegin")());
    open_ = true;
}

Transaction::~Transaction() {
    if (open_) rollback_();
}

void Transaction::commit() {
    open_ = false;
    check("cannot change the registry", commit_());
}

}  // namespace osalctl
