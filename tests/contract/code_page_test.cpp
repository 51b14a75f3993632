// Choice of the code pages through the environment. Each choice is made in a child process of its
// own, since it sets the locale of its process and is made once.
#include <iconv.h>
#include <langinfo.h>
#include <locale.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "osal/conversion.h"
#include "osal/linux/internal/init.h"
#include "support/code_page.h"
#include "support/faults.h"
#include "support/recorders.h"

namespace osal_test {

bool operator==(const LoggedLine& a, const LoggedLine& b) {
    return a.priority == b.priority && a.text == b.text;
}
void PrintTo(const LoggedLine& line, std::ostream* out) {
    *out << line.priority << ": " << line.text;
}

namespace {

constexpr int kNote = LOG_USER | LOG_INFO;
constexpr int kWarning = LOG_USER | LOG_ERR;

using Environment = std::map<std::string, std::string>;
using Preparation = std::function<void()>;

// What a start-up came to.
struct Choice {
    HRESULT result = -1;
    std::string oem;
    std::string ansi;
    bool oem_euro = false;
    bool ansi_euro = false;
    std::string locale;
    std::vector<LoggedLine> lines;
};

void put(int pipe, const std::string& text) {
    const std::size_t size = text.size();
    ASSERT_EQ(write(pipe, &size, sizeof size), static_cast<ssize_t>(sizeof size));
    ASSERT_EQ(write(pipe, text.data(), size), static_cast<ssize_t>(size));
}

std::string get(int pipe) {
    std::size_t size = 0;
    if (read(pipe, &size, sizeof size) != static_cast<ssize_t>(sizeof size)) return {};
    std::string text(size, 0);
    EXPECT_EQ(read(pipe, text.data(), size), static_cast<ssize_t>(size));
    return text;
}

std::string text_of(const char* text) {
    return text == nullptr ? "(null)" : text;
}

// In the child: starts the library and reports.
void start_and_report(int pipe, const Environment& environment, const Preparation& prepare) {
    for (const char* name : {"TESSEL_CODE_PAGE", "TESSEL_LOG_CODE_PAGE", "LANG", "LC_CTYPE"})
        unsetenv(name);
    setenv("LC_ALL", "C.UTF-8", 1);
    for (const auto& [name, value] : environment)
        setenv(name.c_str(), value.c_str(), 1);
    LogRecorder log;
    DllStart();
    log.take();
    if (prepare) prepare();
    void* factory = nullptr;
    put(pipe, std::to_string(DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &factory)));
    put(pipe, text_of(g_pOemCodePage));
    put(pipe, text_of(g_pAnsiCodePage));
    put(pipe, g_oemCodePageSupportsEuro ? "1" : "0");
    put(pipe, g_ansiCodePageSupportsEuro ? "1" : "0");
    put(pipe, setlocale(LC_CTYPE, nullptr));
    for (const LoggedLine& line : log.take()) {
        put(pipe, std::to_string(line.priority));
        put(pipe, line.text);
    }
}

Choice choose(const Environment& environment, const Preparation& prepare = {}) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        start_and_report(ends[1], environment, prepare);
        _exit(0);
    }
    close(ends[1]);
    Choice choice;
    choice.result = std::atoll(get(ends[0]).c_str());
    choice.oem = get(ends[0]);
    choice.ansi = get(ends[0]);
    choice.oem_euro = get(ends[0]) == "1";
    choice.ansi_euro = get(ends[0]) == "1";
    choice.locale = get(ends[0]);
    for (std::string priority = get(ends[0]); !priority.empty(); priority = get(ends[0]))
        choice.lines.push_back({std::atoi(priority.c_str()), get(ends[0])});
    close(ends[0]);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return choice;
}

using Lines = std::vector<LoggedLine>;

TEST(CodePage, TheVariableNamesTheOemPageAndTheAnsiPageFollows) {
    const struct {
        const char *oem, *ansi;
        bool oem_euro, ansi_euro;
    } rows[] = {{"850", "WINDOWS-1252", false, true},      {"437", "WINDOWS-1252", false, true},
                {"866", "WINDOWS-1251", false, true},      {"SJIS", "SJIS", false, false},
                {"CP850", "CP850", false, false},  // another name of 850 is not known as such
                {"ISO-8859-15", "ISO-8859-15", true, true}};
    for (const auto& row : rows) {
        const Choice choice = choose({{"TESSEL_CODE_PAGE", row.oem}});
        EXPECT_EQ(choice.result, KC_S_OK);
        EXPECT_EQ(choice.oem, row.oem);
        EXPECT_EQ(choice.ansi, row.ansi);
        EXPECT_EQ(choice.oem_euro, row.oem_euro) << row.oem;
        EXPECT_EQ(choice.ansi_euro, row.ansi_euro) << row.oem;
        EXPECT_EQ(choice.lines, Lines());
    }
}

TEST(CodePage, WithoutTheVariableBothAreThatOfTheLocale) {
    const Choice choice = choose({});
    EXPECT_EQ(choice.result, KC_S_OK);
    EXPECT_EQ(choice.oem, "UTF-8");
    EXPECT_EQ(choice.ansi, "UTF-8");
    EXPECT_TRUE(choice.oem_euro);
    EXPECT_TRUE(choice.ansi_euro);
    EXPECT_EQ(choice.lines, Lines());
    EXPECT_EQ(choose({{"LC_ALL", "C"}}).oem, "ANSI_X3.4-1968");
}

TEST(CodePage, TheLocaleOfTheProcessIsSetFromTheEnvironment) {
    EXPECT_EQ(choose({}).locale, "C.UTF-8");
    EXPECT_EQ(choose({{"LC_ALL", "C"}}).locale, "C");
}

TEST(CodePage, AnEmptyVariableCountsAsUnset) {
    const Choice choice = choose({{"TESSEL_CODE_PAGE", ""}});
    EXPECT_EQ(choice.oem, "UTF-8");
    EXPECT_EQ(choice.ansi, "UTF-8");
}

TEST(CodePage, AnUnknownPageGivesTheLastResort) {
    const Choice choice = choose({{"TESSEL_CODE_PAGE", "NO-SUCH-PAGE"}});
    EXPECT_EQ(choice.result, KC_S_OK);
    EXPECT_EQ(choice.oem, "ANSI_X3.4-1968");
    EXPECT_EQ(choice.ansi, "ANSI_X3.4-1968");
    EXPECT_FALSE(choice.oem_euro);
    EXPECT_FALSE(choice.ansi_euro);
    EXPECT_EQ(choice.lines, (Lines{{kWarning,
                                    "CodePageValid: Unable to open conversion descriptor "
                                    "NO-SUCH-PAGE-UNICODE\n"}}));
}

TEST(CodePage, AnUnknownPageIsTraced) {
    const Choice choice =
        choose({{"TESSEL_CODE_PAGE", "NO-SUCH-PAGE"}, {"TESSEL_LOG_CODE_PAGE", ""}});
    const Lines expected = {
        {kNote, "Obtaining OEM Code Page setting from TESSEL_CODE_PAGE environment variable\n"},
        {kNote, "TESSEL_CODE_PAGE=NO-SUCH-PAGE\n"},
        {kWarning, "CodePageValid: Unable to open conversion descriptor NO-SUCH-PAGE-UNICODE\n"},
        {kWarning,
         "Did not find support for NO-SUCH-PAGE in the system, setting OEM Code Page to "
         "ANSI_X3.4-1968\n"},
        {kWarning,
         "Either add support for the code page or modify the configuration of the system\n"},
        {kWarning,
         "Note: You can set the OEM Code Page Setting via the TESSEL_CODE_PAGE variable\n"},
        {kNote, "Setting OEM Code Page to ANSI_X3.4-1968\n"},
        {kNote, "Setting ANSI Code Page to ANSI_X3.4-1968\n"}};
    EXPECT_EQ(choice.lines, expected);
}

TEST(CodePage, AChoiceByTheVariableIsTraced) {
    const Choice choice = choose({{"TESSEL_CODE_PAGE", "850"}, {"TESSEL_LOG_CODE_PAGE", "0"}});
    const Lines expected = {
        {kNote, "Obtaining OEM Code Page setting from TESSEL_CODE_PAGE environment variable\n"},
        {kNote, "TESSEL_CODE_PAGE=850\n"},
        {kNote, "Setting OEM Code Page to 850\n"},
        {kNote, "Setting ANSI Code Page to WINDOWS-1252\n"}};
    EXPECT_EQ(choice.lines, expected);
}

TEST(CodePage, AChoiceByTheLocaleIsTraced) {
    const Choice choice = choose({{"TESSEL_LOG_CODE_PAGE", "1"}});
    const Lines expected = {
        {kNote, "Obtaining OEM Code Page setting from locale settings (ie. locale charmap)\n"},
        {kNote, "OEM Code Page setting obtained from locale settings = UTF-8\n"},
        {kNote, "Setting OEM Code Page to UTF-8\n"},
        {kNote, "Setting ANSI Code Page to UTF-8\n"}};
    EXPECT_EQ(choice.lines, expected);
}

char* no_charset(nl_item) {
    static char nothing[] = "";
    return nothing;
}
char* null_charset(nl_item) {
    return nullptr;
}

TEST(CodePage, ALocaleWithoutACharsetGivesTheDefault) {
    for (auto* charset : {no_charset, null_charset}) {
        const auto prepare = [=] { new Interpose("osal.so", "nl_langinfo", charset); };
        const Choice choice = choose({{"TESSEL_LOG_CODE_PAGE", "1"}}, prepare);
        EXPECT_EQ(choice.oem, "437");
        EXPECT_EQ(choice.ansi, "WINDOWS-1252");
        const Lines expected = {
            {kNote, "Obtaining OEM Code Page setting from locale settings (ie. locale charmap)\n"},
            {kNote, "Unable to obtain OEM Code Page setting from locale settings, using default\n"},
            {kNote, "Setting OEM Code Page to 437\n"},
            {kNote, "Setting ANSI Code Page to WINDOWS-1252\n"}};
        EXPECT_EQ(choice.lines, expected);
        EXPECT_EQ(choose({}, prepare).lines, Lines());
    }
}

iconv_t only_without_1252(const char* to, const char* from) {
    const bool is_refused =
        strncmp(to, "WINDOWS-1252", 12) == 0 || strncmp(from, "WINDOWS-1252", 12) == 0;
    return is_refused ? reinterpret_cast<iconv_t>(-1) : iconv_open(to, from);
}
iconv_t only_from_wide(const char* to, const char* from) {
    return strcmp(from, "850") == 0 ? reinterpret_cast<iconv_t>(-1) : iconv_open(to, from);
}

TEST(CodePage, AnUnsupportedAnsiPageIsKeptWhateverTheWarningSays) {
    const auto prepare = [] { new Interpose("osal.so", "iconv_open", only_without_1252); };
    const Choice quiet = choose({{"TESSEL_CODE_PAGE", "437"}}, prepare);
    EXPECT_EQ(quiet.result, KC_S_OK);
    EXPECT_EQ(quiet.oem, "437");
    EXPECT_EQ(quiet.ansi, "WINDOWS-1252");
    EXPECT_FALSE(quiet.ansi_euro);
    const Lines errors = {
        {kWarning, "CodePageValid: Unable to open conversion descriptor WINDOWS-1252-UNICODE\n"},
        {kWarning, "CheckCodePageEuroSupport: Unable to open conversion descriptor\n"}};
    EXPECT_EQ(quiet.lines, errors);

    const Choice traced =
        choose({{"TESSEL_CODE_PAGE", "437"}, {"TESSEL_LOG_CODE_PAGE", "1"}}, prepare);
    EXPECT_EQ(traced.ansi, "WINDOWS-1252");
    const Lines expected = {
        {kNote, "Obtaining OEM Code Page setting from TESSEL_CODE_PAGE environment variable\n"},
        {kNote, "TESSEL_CODE_PAGE=437\n"},
        {kNote, "Setting OEM Code Page to 437\n"},
        errors[0],
        {kWarning,
         "Did not find support for 437 in the system, setting ANSI Code Page to "
         "ANSI_X3.4-1968\n"},
        {kNote, "Setting ANSI Code Page to WINDOWS-1252\n"},
        errors[1]};
    EXPECT_EQ(traced.lines, expected);
}

TEST(CodePage, APageThatConvertsOneWayOnlyIsNotValid) {
    const Choice choice = choose({{"TESSEL_CODE_PAGE", "850"}},
                                 [] { new Interpose("osal.so", "iconv_open", only_from_wide); });
    EXPECT_EQ(choice.oem, "ANSI_X3.4-1968");
    EXPECT_EQ(
        choice.lines,
        (Lines{{kWarning, "CodePageValid: Unable to open conversion descriptor UNICODE-850\n"}}));
}

TEST(CodePage, ANameThatCannotBeCopiedFailsTheStart) {
    for (int request : {1, 2}) {
        const auto prepare = [=] { new HeapFault(request); };
        const Choice quiet = choose({{"TESSEL_CODE_PAGE", "850"}}, prepare);
        EXPECT_EQ(quiet.result, KC_E_CREATE_FAILED);
        EXPECT_EQ(quiet.oem, "(null)");
        EXPECT_EQ(quiet.ansi, "(null)");
        EXPECT_EQ(quiet.lines, (Lines{{kWarning, "CharConv init failed 0"}}));

        const Choice traced =
            choose({{"TESSEL_CODE_PAGE", "850"}, {"TESSEL_LOG_CODE_PAGE", "1"}}, prepare);
        ASSERT_GE(traced.lines.size(), 2u);
        EXPECT_EQ(traced.lines[traced.lines.size() - 2],
                  (LoggedLine{kWarning, "Unable to allocate buffer for code page string"}));
        EXPECT_EQ(traced.lines.back(), (LoggedLine{kWarning, "CharConv init failed 0"}));
    }
}

TEST(CodePage, AStartWithoutCodePagesBuildsOneStatus) {
    setenv("TESSEL_CODE_PAGE", "850", 1);
    for (int request : {1, 2}) {
        LogRecorder log;
        StatusRecorder statuses;
        HeapFault fault(request);
        const KCSTATUS status = OsalInitialize();
        EXPECT_EQ(fault.requests(), request) << "nothing is tried after the failure";
        statuses.expect_one(1, "init", "OsalInitialize");
        EXPECT_EQ(status, error(1));
        EXPECT_EQ(log.take(), (Lines{{kWarning, "CharConv init failed 0"}}));
        EXPECT_EQ(pIOsal, nullptr);
    }
}

TEST(CodePage, TablesThatCannotBeAllocatedFailNothing) {
    for (int request : {3, 4, 5, 6}) {
        int result = -1;
        const Choice choice = choose({{"TESSEL_CODE_PAGE", "850"}}, [&] {
            auto* fault = new HeapFault(request);
            result = InitCharConvInfrastructure();
            EXPECT_GE(fault->requests(), request);
            delete fault;
            WCHAR unit = 0;
            UINT32 count = 1;
            EXPECT_EQ(LocToUni("850", FALSE, "\x82", 1, &unit, &count), 0);
            EXPECT_EQ(unit, 0xE9);
            UnInitCharConvInfrastructure();
            if (result != 0 || testing::Test::HasFailure()) _exit(1);
        });
        EXPECT_EQ(choice.result, KC_S_OK);
    }
}

TEST(CodePage, ALaterChangeOfTheEnvironmentHasNoEffect) {
    setenv("TESSEL_CODE_PAGE", "850", 1);
    DllStart();
    PIOsal first = new_instance();
    setenv("TESSEL_CODE_PAGE", "866", 1);
    PIOsal second = new_instance();
    EXPECT_STREQ(g_pOemCodePage, "850");
    EXPECT_STREQ(g_pAnsiCodePage, "WINDOWS-1252");
    WCHAR unit = 0;
    UINT32 count = 1;
    EXPECT_EQ(KxMultiByteToWideChar(second, KX_CODE_PAGE_OEM, "\x82", 1, &unit, &count), KC_OK);
    EXPECT_EQ(unit, 0xE9);
    second->lpVtbl->Release(second);
    first->lpVtbl->Release(first);
    DllStop();
}

TEST(CodePage, ShutdownWithoutAStartIsHarmless) {
    UnInitCharConvInfrastructure();
    UnInitCharConvInfrastructure();
    EXPECT_EQ(g_pOemCodePage, nullptr);
}

TEST(CodePage, EuroSupportIsThatOfTheConverter) {
    LogRecorder log;
    EXPECT_EQ(CheckCodePageEuroSupport("WINDOWS-1252"), TRUE);
    EXPECT_EQ(CheckCodePageEuroSupport("UTF-8"), TRUE);
    EXPECT_EQ(CheckCodePageEuroSupport("437"), FALSE);
    EXPECT_EQ(log.take(), Lines());
    EXPECT_EQ(CheckCodePageEuroSupport("NO-SUCH-PAGE"), FALSE);
    EXPECT_EQ(
        log.take(),
        (Lines{{kWarning, "CheckCodePageEuroSupport: Unable to open conversion descriptor\n"}}));
    EXPECT_EQ(CodePageValid("850"), TRUE);
    EXPECT_EQ(CodePageValid("NO-SUCH-PAGE"), FALSE);
}

}  // namespace
}  // namespace osal_test
