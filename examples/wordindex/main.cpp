// wordindex: counts the words of a folder of text files with the services of osal.so, which it
// reaches as any component does, through the component runtime and the interface table.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "count.h"
#include "options.h"
#include "report.h"
#include "walk.h"

namespace wordindex {
namespace {

UINT64 now_100ns(const Client& client) {
    UINT64 now = 0;
    client.call<&IOsalVtbl::KxGetSystemTime>(&now);
    return now;
}

void count_files(const Client& client, const std::vector<std::string>& files, WordTable& table,
                 Totals& totals, std::vector<Unreadable>& unreadable) {
    for (const std::string& path : files) {
        WordTable words(client, table.buckets());
        Totals of_file;
        if (const int error = count_file(client, path, words, of_file)) {
            unreadable.push_back({path, error});
            continue;
        }
        table.absorb(words);
        totals += of_file;
    }
}

int index_folder(const Client& client, const Options& options) {
    const UINT64 start = now_100ns(client);
    std::vector<Unreadable> unreadable;
    WordTable table(client, options.buckets);
    Totals totals;
    count_files(client, find_files(options.folder, unreadable), table, totals, unreadable);
    if (!print_report(options, totals, table, now_100ns(client) - start))
        throw Failure(std::string("cannot write the result: ") + strerror(errno));
    for (const auto& [path, error] : unreadable)
        fprintf(stderr, "wordindex: %s: %s\n", path.c_str(), strerror(error));
    return unreadable.empty() ? kDone : kSomeUnreadable;
}

int run(const Options& options) {
    const Client client("wordindex");
    const int exit_code = index_folder(client, options);
    if (const std::string left = client.leftovers(); !left.empty())
        throw Failure("not given back to the library: " + left);
    return exit_code;
}

}  // namespace
}  // namespace wordindex

int main(int argc, char** argv) {
    using namespace wordindex;
    try {
        Options options;
        int exit_code = kDone;
        return read_options(argc, argv, options, &exit_code) ? run(options) : exit_code;
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "wordindex: out of memory\n");
    } catch (const std::exception& error) {
        fprintf(stderr, "wordindex: %s\n", error.what());
    }
    return kLibrary;
}
