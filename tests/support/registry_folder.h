// A registry of its own for a test: a fresh folder, removed at the end, never the user's file.
#pragma once

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace osal_test {

class RegistryFolder {
  public:
    RegistryFolder() {
        std::string name = std::filesystem::temp_directory_path() / "registry-XXXXXX";
        folder_ = mkdtemp(name.data());
        setenv("TSREG_FILE", file().c_str(), 1);
    }
    ~RegistryFolder() {
        close_file();
        std::filesystem::remove_all(folder_);
    }
    RegistryFolder(const RegistryFolder&) = delete;
    RegistryFolder& operator=(const RegistryFolder&) = delete;

    std::string folder() const { return folder_; }
    std::string file() const { return folder_ + "/registry.db"; }

    // Makes the library open the file anew at its next call: a fork closes it.
    static void close_file() {
        const pid_t child = fork();
        if (child == 0) _exit(0);
        waitpid(child, nullptr, 0);
    }

  private:
    std::string folder_;
};

}  // namespace osal_test
