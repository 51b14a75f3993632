// wordindex: counts the words of a folder of text files with the services of osal.so, which it
// reaches as any component does, through the component runtime and the interface table.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <optional>

#include "interrupt.h"
#include "job.h"
#include "options.h"
#include "progress_bar.h"
#include "report.h"
#include "settings.h"
#include "statistics.h"
#include "text.h"
#include "walk.h"

namespace wordindex {
namespace {

void count(const Client& client, Job& job, bool with_progress) {
    std::optional<ProgressBar> bar;
    if (with_progress) bar.emplace(client, job);
    job.run();
}

void complain(const std::vector<Unreadable>& unreadable) {
    for (const auto& [path, error] : unreadable)
        fprintf(stderr, "wordindex: %s: %s\n", printable(path).c_str(), strerror(error));
}

// A terminal that can wipe a line, of a person who looks at it.
bool may_draw(const Options& options) {
    const char* terminal = getenv("TERM");
    return isatty(STDERR_FILENO) && !options.machine_readable && terminal != nullptr &&
           *terminal != 0 && strcmp(terminal, "dumb") != 0;
}

bool count_was_cut_short(Job& job, const Totals& totals) {
    if (!interrupted()) return false;
    fprintf(stderr, "wordindex: interrupted: %zu of %zu files are counted\n",
            std::size_t(totals.files), std::size_t(job.progress().all_files));
    return true;
}

int index_folder(const Client& client, const Options& options, const Note& note) {
    const UINT64 start = now_100ns(client);
    std::vector<Unreadable> folders;
    Job job(client, find_files(options.folder, folders), options);
    count(client, job, may_draw(options));
    Summary summary(client, options.buckets);
    summarize(job, summary);
    summary.elapsed_100ns = now_100ns(client) - start;
    if (!print_report(client, options, summary))
        throw Failure(std::string("cannot write the result: ") + strerror(errno));
    if (options.statistics) print_statistics(client, job.words());
    complain(folders);
    complain(job.unreadable());
    if (count_was_cut_short(job, summary.totals)) return kInterrupted;
    write_last_run(client, options.folder, summary, note);
    return folders.empty() && job.unreadable().empty() ? kDone : kSomeUnreadable;
}

int run(Options options, const Settings& chosen) {
    catch_interrupt();
    const Client client("wordindex");
    const Note note = [verbose = options.verbose](const std::string& what) {
        if (verbose) fprintf(stderr, "wordindex: note: %s\n", what.c_str());
    };
    apply(read_settings(client, note), options);
    apply(chosen, options);
    const int exit_code = index_folder(client, options, note);
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
        Settings chosen;
        int exit_code = kDone;
        return read_options(argc, argv, options, chosen, &exit_code) ? run(options, chosen)
                                                                     : exit_code;
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "wordindex: out of memory\n");
    } catch (const std::exception& error) {
        fprintf(stderr, "wordindex: %s\n", error.what());
    }
    return kLibrary;
}
