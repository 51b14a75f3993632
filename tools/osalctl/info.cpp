// Commands that tell something about the library: statuses in words, code pages, limits.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "commands.h"
#include "host/kcstatus.h"
#include "session.h"
#include "value.h"

namespace osalctl {
namespace {

constexpr const char* kSeverities[] = {"success", "information", "warning", "error"};

KCSTATUS parse_status(const std::string& text) {
    char* end = nullptr;
    const unsigned long number = std::strtoul(text.c_str(), &end, 0);
    if (text.empty() || text.front() == '-' || *end != '\0' || number > UINT32_MAX)
        throw Failure("\"" + text + "\" is no status: write it like 0xC7F10004 or 3354460164",
                      kUsage);
    return static_cast<KCSTATUS>(number);
}

Json describe(KCSTATUS status) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", status);
    return {{"status", hex},
            {"severity", kSeverities[KC_SEVERITY(status)]},
            {"facility", KC_FACILITY(status)},
            {"facility name", KcStatusFacilityName(status)},
            {"code", KC_CODE(status)},
            {"meaning", KcStatusName(status)}};
}

void show_statuses(const std::vector<std::string>& codes, bool json) {
    Json list = Json::array();
    for (const std::string& code : codes)
        list.push_back(describe(parse_status(code)));
    if (json) return static_cast<void>(std::puts(list.dump(2).c_str()));
    for (const Json& entry : list)
        std::printf("%s  %s: %s (%s, facility %u, code %u)\n",
                    entry["status"].get<std::string>().c_str(),
                    entry["severity"].get<std::string>().c_str(),
                    entry["meaning"].get<std::string>().c_str(),
                    entry["facility name"].get<std::string>().c_str(),
                    entry["facility"].get<unsigned>(), entry["code"].get<unsigned>());
}

void show(const Json& table, bool json) {
    if (json) return static_cast<void>(std::puts(table.dump(2).c_str()));
    for (const auto& [name, entry] : table.items())
        std::printf("%-28s %s\n", name.c_str(),
                    (entry.is_string() ? entry.get<std::string>() : entry.dump()).c_str());
}

void show_code_pages(bool json) {
    const Session session;
    show({{"OEM code page", session.global<const char*>("g_pOemCodePage")},
          {"OEM page has the euro", session.global<BOOLEAN>("g_oemCodePageSupportsEuro") != 0},
          {"ANSI code page", session.global<const char*>("g_pAnsiCodePage")},
          {"ANSI page has the euro", session.global<BOOLEAN>("g_ansiCodePageSupportsEuro") != 0}},
         json);
}

void show_limits(bool json) {
    const Session session;
    show({{"threads for callers", session.global<UINT64>("g_OsalMaxThreads")},
          {"files", session.global<INT32>("g_OsalMaxFiles")},
          {"timer threads", session.global<INT32>("g_OsalMaxTimerThreads")},
          {"work-item threads", session.global<INT32>("g_OsalMaxWorkItemThreads")}},
         json);
}

}  // namespace

void add_info_commands(CLI::App& app, const Options& options) {
    auto* status = app.add_subcommand("status", "Say in words what statuses mean");
    auto codes = std::make_shared<std::vector<std::string>>();
    status->add_option("CODE", *codes, "Statuses, such as 0xC7F10004")->required();
    status->callback([codes, &options] { show_statuses(*codes, options.json); });
    app.add_subcommand("codepages", "Show the code pages that the library chose")
        ->callback([&options] { show_code_pages(options.json); });
    app.add_subcommand("limits", "Show the limits of the library in this process")
        ->callback([&options] { show_limits(options.json); });
}

}  // namespace osalctl
