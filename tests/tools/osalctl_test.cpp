// osalctl as a user runs it.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "support/registry_folder.h"

namespace osal_test {
namespace {

struct Result {
    int exit;
    std::string output;  // with what went to standard error
};

class Tool : public testing::Test {
  protected:
    Tool() { setenv("LC_ALL", "C.UTF-8", 1); }

    static Result run(const std::string& arguments) {
        return shell(OSAL_BUILD_DIR "/bin/osalctl " + arguments + " 2>&1");
    }
    static Result shell(const std::string& command) {
        Result result = {-1, ""};
        FILE* pipe = popen(command.c_str(), "r");
        char buffer[4096];
        while (const std::size_t size = fread(buffer, 1, sizeof buffer, pipe))
            result.output.append(buffer, size);
        result.exit = WEXITSTATUS(pclose(pipe));
        return result;
    }
    static void expect(const std::string& arguments, const std::string& output) {
        const Result result = run(arguments);
        EXPECT_EQ(result.exit, 0) << arguments;
        EXPECT_EQ(result.output, output) << arguments;
    }
    // That a command fails with an exit code and says something.
    static void refuse(const std::string& arguments, int exit, const std::string& part) {
        const Result result = run(arguments);
        EXPECT_EQ(result.exit, exit) << arguments;
        EXPECT_NE(result.output.find(part), std::string::npos) << result.output;
    }
    std::string file(const std::string& content) {
        const std::string path = folder.folder() + "/input.json";
        std::ofstream(path) << content;
        return path;
    }

    RegistryFolder folder;
};

TEST_F(Tool, AValueOfEachTypeIsPrintedAsItWasSet) {
    expect("registry set A text 'Grüße, 中'", "");
    expect("registry get A text", "Grüße, 中\n");
    expect("registry set A small 0xFFFFFFFF -t uint32", "");
    expect("registry get A small", "4294967295\n");
    expect("registry set A big 18446744073709551615 --type uint64", "");
    expect("registry get A big", "18446744073709551615\n");
    expect("registry set A blob 00fFa0 -t binary", "");
    expect("registry get A blob", "00ffa0\n");
    expect("registry set A list one 'two words' -t strings", "");
    expect("registry get A list", "\"one\" \"two words\"\n");
    expect("registry set A none -t strings", "");
    expect("registry get A none", "\n");
    expect("registry set A empty ''", "");
    expect("registry get A empty", "\n");
    expect("registry ls A",
           "big    uint64   18446744073709551615\n"
           "blob   binary   00ffa0\n"
           "empty  string   \n"
           "list   strings  \"one\" \"two words\"\n"
           "none   strings  \n"
           "small  uint32   4294967295\n"
           "text   string   Grüße, 中\n");
}

TEST_F(Tool, ARegistryNeverWrittenToIsEmpty) {
    expect("registry ls", "");
    expect("registry ls --json", "{\n  \"values\": {},\n  \"keys\": {}\n}\n");
    EXPECT_FALSE(std::filesystem::exists(folder.file()));
}

TEST_F(Tool, KeysAreListedWithABackslash) {
    expect("registry set A/B/C v 1 -t uint32", "");
    expect("registry ls 'A\\B'", "C\\\n");
    expect("registry ls -r A", "A\\\nA\\B\\\nA\\B\\C\\\nv  uint32   1\n");
}

TEST_F(Tool, WhatIsNotThereIsExitCode3) {
    expect("registry set A v 1", "");
    refuse("registry ls B", 3, "cannot open key 'B': not found");
    refuse("registry get A w", 3, "key 'A' has no value 'w'");
    refuse("registry delete A w", 3, "cannot delete value 'w': not found");
    refuse("registry delete B", 3, "not found");
}

TEST_F(Tool, WrongInputIsExitCode2AndChangesNothing) {
    refuse("registry set A v 4294967296 -t uint32", 2, "is no uint32");
    refuse("registry set A v -1 -t uint32", 2, "");
    refuse("registry set A v 0f0 -t binary", 2, "hexadecimal");
    refuse("registry set A v x -t number", 2, "is no type");
    refuse("registry set A v one two", 2, "exactly one");
    refuse("registry set A v one '' -t strings", 2, "empty");
    refuse("registry", 2, "");
    refuse("nonsense", 2, "");
    refuse("status zero", 2, "is no status");
    expect("registry ls", "");
}

TEST_F(Tool, AKeyWithSubKeysIsDeletedOnlyIfAsked) {
    expect("registry set A/B v 1", "");
    refuse("registry delete A", 1, "--recursive");
    expect("registry get A/B v", "1\n");
}

TEST_F(Tool, DeletingTakesAValueOrAKey) {
    expect("registry set A/B v 1", "");
    expect("registry delete A/B v", "");
    expect("registry ls A/B", "");
    expect("registry delete -r A", "");
    expect("registry ls", "");
}

TEST_F(Tool, AnExportImportsToTheSameAgain) {
    for (const char* value : {"A x 1 -t uint32", "A/B y 'a\"b' -t strings", "A/B z 00 -t binary",
                              "A/B n -t strings", "A 'ü' 'ü'"})
        expect(std::string("registry set ") + value, "");
    const std::string saved = run("registry export A").output;
    expect("registry delete -r A", "");
    expect("registry import -k A " + file(saved), "");
    EXPECT_EQ(run("registry export A").output, saved);
    expect("registry import --key Other/A < " + file(saved), "");
    EXPECT_EQ(run("registry export Other/A").output, saved);
}

TEST_F(Tool, AnImportWithAMistakeAnywhereChangesNothing) {
    expect("registry set A v 1 -t uint32", "");
    const std::string before = run("registry export").output;
    const std::string good = R"("values": {"v": {"type": "uint32", "value": 2}})";
    for (const char* bad : {"", "[]", "{\"keys\": []}", "{\"values\": {\"w\": 1}}",
                            "{\"values\": {\"w\": {\"type\": \"uint32\", \"value\": -1}}}",
                            "{\"values\": {\"w\": {\"type\": \"uint32\", \"value\": 4294967296}}}",
                            "{\"values\": {\"w\": {\"type\": \"what\", \"value\": 1}}}",
                            "{\"keys\": {\"a/b\": {}}}", "{\"keys\": {\"\": {}}}"}) {
        const std::string text = "{" + good + ", \"keys\": {\"Z\": " + bad + "}}";
        refuse("registry import -k A " + file(text), 2, "");
        EXPECT_EQ(run("registry export").output, before) << text;
    }
    refuse("registry import /no/such/file", 1, "cannot read file");
}

// The last name is too long for the registry, which shows only when it is written.
TEST_F(Tool, AnImportThatFailsHalfwayIsTakenBack) {
    expect("registry set A v 1 -t uint32", "");
    const std::string before = run("registry export").output;
    const std::string text = R"({"values": {"new": {"type": "string", "value": "x"},
        "v": {"type": "string", "value": "changed"}},
        "keys": {"New": {"values": {"a": {"type": "string", "value": "x"}}},
                 "Z": {"values": {")" +
                             std::string(300, 'n') + R"(": {"type": "string", "value": "x"}}}}})";
    refuse("registry import -k A " + file(text), 1, "");
    EXPECT_EQ(run("registry export").output, before);
}

// Starts a command and kills it after a while. True: it had ended by itself before.
bool kill_after(const std::vector<std::string>& arguments, useconds_t after_us) {
    std::vector<char*> words;
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        execv(words[0], words.data());
        _exit(99);
    }
    usleep(after_us);
    kill(child, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << status;
    return WIFEXITED(status);
}

// 2,000 values that change and as many new ones, in 20 keys each.
std::string large_import(int number) {
    std::string text = "{\"keys\": {";
    for (int key = 0; key < 20; ++key) {
        text += (key != 0 ? ", \"K" : "\"K") + std::to_string(key) + "\": {\"values\": {";
        for (int value = 0; value < 100; ++value)
            text += (value != 0 ? ", \"v" : "\"v") + std::to_string(value) +
                    R"(": {"type": "uint32", "value": )" + std::to_string(number) + "}";
        text += "}}";
    }
    return text + "}}";
}

TEST_F(Tool, AnImportThatIsKilledIsThereAsAWholeOrNotAtAll) {
    const char* wanted = std::getenv("OSAL_TEST_ROUNDS");
    const int rounds = wanted != nullptr ? std::atoi(wanted) : 6;
    run("registry import -k A " + file(large_import(0)));
    const auto started = std::chrono::steady_clock::now();
    run("registry import -k A " + file(large_import(1)));
    const auto needed = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - started);
    int wholes = 0;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        const std::string path = file(large_import(round + 2));
        const auto after_us = static_cast<useconds_t>(needed.count() * (round + 1) / rounds);
        // Values that are there, and keys that are not.
        for (const std::string& key : {std::string("A"), "Fresh" + std::to_string(round)}) {
            const std::string before = run("registry export " + key).output;
            const bool ended = kill_after(
                {OSAL_BUILD_DIR "/bin/osalctl", "registry", "import", "-k", key, path}, after_us);
            const std::string after = run("registry export " + key).output;
            run("registry import -k " + key + " " + path);
            const std::string whole = run("registry export " + key).output;
            EXPECT_NE(before, whole);
            EXPECT_TRUE(after == whole || (!ended && after == before)) << "after " << after_us;
            wholes += after == whole;
        }
    }
    std::printf("%d of %d were there\n", wholes, 2 * rounds);
    EXPECT_LT(wholes, 2 * rounds);
}

TEST_F(Tool, StatusesAreExplained) {
    expect("status 0xC7F10004 3355770883",
           "0xC7F10004  error: invalid argument (osal, facility 2033, code 4)\n"
           "0xC8050003  error: invalid handle or not found (facility, facility 2053, code 3)\n");
    expect("status 0", "0x00000000  success: success (facility, facility 0, code 0)\n");
    refuse("status 0xC7F50006 --json", 0, "\"meaning\": \"access denied\"");
}

TEST_F(Tool, CodePagesAndLimitsAreThoseOfTheLibrary) {
    setenv("TESSEL_CODE_PAGE", "IBM850", 1);
    refuse("codepages", 0, "OEM code page                IBM850\n");
    refuse("codepages --json", 0, "\"ANSI code page\": \"");
    refuse("limits", 0, "work-item threads            8\n");
    unsetenv("TESSEL_CODE_PAGE");
}

TEST_F(Tool, ADamagedFileIsNamedAsSuch) {
    std::ofstream(folder.file()) << std::string(8192, 'x');
    refuse("registry ls", 1, "stored data damaged");
}

// Commands with what they print, as a section of the README shows them.
std::vector<std::pair<std::string, std::string>> examples_in(const std::string& section) {
    std::ifstream readme(OSAL_SOURCE_DIR "/README.md");
    std::vector<std::pair<std::string, std::string>> examples;
    std::string line;
    while (std::getline(readme, line) && line != section) {
    }
    while (std::getline(readme, line) && line != "```") {
    }
    while (std::getline(readme, line) && line != "```")
        if (line.rfind("$ ", 0) == 0)
            examples.push_back({line.substr(2), ""});
        else if (!examples.empty())
            examples.back().second += line + "\n";
    return examples;
}

TEST_F(Tool, TheReadmeShowsWhatItDoes) {
    const std::string shown = "build/release/bin/osalctl ";
    const auto examples = examples_in("## Look at it");
    EXPECT_GE(examples.size(), 6u);
    for (const auto& [command, output] : examples) {
        ASSERT_EQ(command.rfind(shown, 0), 0u) << command;
        expect(command.substr(shown.size()), output);
    }
}

TEST_F(Tool, HelpNamesTheExitCodes) {
    refuse("--help", 0, "Exit codes: 0 done");
    refuse("registry import --help", 0, "All or nothing");
}

TEST_F(Tool, BashCompletesCommandsTypesAndKeys) {
    expect("registry set Alpha/Beta v 1", "");
    const auto complete = [](const std::string& words) {
        return shell("bash -c 'source " OSAL_SOURCE_DIR
                     "/tools/osalctl/osalctl.bash; COMP_WORDS=(" OSAL_BUILD_DIR "/bin/" +
                     words +
                     "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _osalctl; echo ${COMPREPLY[@]}'")
            .output;
    };
    EXPECT_EQ(complete("osalctl re"), "registry\n");
    EXPECT_EQ(complete("osalctl registry e"), "export\n");
    EXPECT_EQ(complete("osalctl registry set A v 1 -t uint"), "uint32 uint64\n");
    EXPECT_EQ(complete("osalctl registry ls A"), "Alpha\n");
    EXPECT_EQ(complete("osalctl registry ls Alpha/"), "Alpha/Beta\n");
}

}  // namespace
}  // namespace osal_test
