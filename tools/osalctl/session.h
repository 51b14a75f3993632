// The library as the tool sees it: the component runtime, one service instance, open keys.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "osal/osal.h"

namespace osalctl {

enum Exit { kDone = 0, kFailed = 1, kUsage = 2, kNotThere = 3 };

// What ends a command: a line for standard error, and the exit code.
class Failure : public std::runtime_error {
  public:
    Failure(const std::string& message, Exit exit = kFailed)
        : std::runtime_error(message), exit(exit) {}
    const Exit exit;
};

// What was tried, why it failed and what helps, from a status.
Failure failure(const std::string& what, KCSTATUS status);

// Throws unless the status is good.
void check(const std::string& what, KCSTATUS status);

// A started component runtime and an instance of the service interface.
class Session {
  public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const IOsalVtbl* operator->() const { return osal_->lpVtbl; }
    PIOsal self() const { return osal_; }

    // Text of the command line, which is UTF-8, and of the services.
    std::u16string wide(const std::string& text) const;
    std::string utf8(const char16_t* text, std::size_t units) const;

    // A global of the library by its name.
    template <class Type>
    const Type& global(const char* name) const {
        return *static_cast<const Type*>(symbol(own_library(), name));
    }
    // A function of the registry library that osal.so does not serve.
    template <class Function>
    Function* registry_function(const char* name) const {
        return reinterpret_cast<Function*>(symbol("libtsreg.so", name));
    }

  private:
    const char* own_library() const;
    static void* symbol(const char* library, const char* name);
    PIOsal osal_ = nullptr;
};

inline const WCHAR* units(const std::u16string& text) {
    return reinterpret_cast<const WCHAR*>(text.c_str());
}

// An open registry key.
class Key {
  public:
    Key(const Session& session, const std::string& path, KX_KEY_ACCESS access, bool create = false);
    ~Key();
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    HANDLE handle() const { return handle_; }

  private:
    const Session& session_;
    HANDLE handle_ = nullptr;
};

// What is done to the registry during its life takes effect as a whole, if committed.
class Transaction {
  public:
    explicit Transaction(const Session& session);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

  private:
    using Step = KCSTATUS (*)();
    Step commit_;
    Step rollback_;
    bool open_ = false;
};

// A path with backslashes between the names; "/" is taken as one.
std::string normal_path(std::string path);

}  // namespace osalctl
