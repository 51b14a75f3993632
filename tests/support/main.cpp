// Runs the selected tests, each in a process of its own: the library starts once in a process and
// cannot be started again, so a test that finds it stopped by another one proves nothing.
//
// ctest names one test a process. Whoever runs a whole binary by hand gets the same here.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

pid_t start(const Words& command, int output) {
    const pid_t child = fork();
    if (child != 0) return child;
    if (output >= 0) dup2(output, STDOUT_FILENO);
    std::vector<char*> words;
    for (const std::string& word : command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    execv("/proc/self/exe", words.data());
    _exit(127);
}

int exit_of(pid_t child) {
    int status = -1;
    return waitpid(child, &status, 0) == child ? status : -1;
}

std::string output_of(const Words& command) {
    int ends[2];
    if (pipe(ends) != 0) return "";
    const pid_t child = start(command, ends[1]);
    close(ends[1]);
    std::string text;
    char part[4096];
    for (ssize_t size; (size = read(ends[0], part, sizeof part)) > 0;)
        text.append(part, static_cast<std::size_t>(size));
    close(ends[0]);
    exit_of(child);
    return text;
}

// The names in a list of tests: those of suites end with a dot, those of tests are indented, and
// either may have a comment behind it.
Words names_in(const std::string& list) {
    Words names;
    std::string suite;
    for (std::size_t begin = 0, end; (end = list.find('\n', begin)) != list.npos; begin = end + 1) {
        const std::string line = list.substr(begin, end - begin);
        const std::size_t start = line.find_first_not_of(' ');
        if (start == line.npos) continue;
        const std::string name = line.substr(start, line.find(' ', start) - start);
        if (start == 0)
            suite = name;
        else
            names.push_back(suite + name);
    }
    return names;
}

int run_each(const Words& command, const Words& names) {
    Words failed;
    for (const std::string& name : names) {
        Words one = command;
        one.push_back("--gtest_brief=1");
        one.push_back("--gtest_filter=" + name);
        if (exit_of(start(one, -1)) != 0) failed.push_back(name);
    }
    printf("%zu tests, each in a process of its own: %zu failed\n", names.size(), failed.size());
    for (const std::string& name : failed)
        printf("[  FAILED  ] %s\n", name.c_str());
    return failed.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const Words command(argv, argv + argc);
    testing::InitGoogleTest(&argc, argv);
    const std::string filter = GTEST_FLAG_GET(filter);
    const bool is_one = filter.find_first_of("*?:-") == filter.npos;
    if (GTEST_FLAG_GET(list_tests) || is_one) return RUN_ALL_TESTS();
    Words list = command;
    list.push_back("--gtest_list_tests");
    const Words names = names_in(output_of(list));
    return names.size() > 1 ? run_each(command, names) : RUN_ALL_TESTS();
}
