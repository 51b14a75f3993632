// Puts a function in front of what one loaded library imports, for the life of an object.
//
// Works on the library's own import slots, so only its calls are redirected: not those of the test,
// of gtest or of other libraries. That holds under every sanitizer. The library's own threads may
// come by at any time; a stand-in for what they call as well asks made_here() first.
#pragma once

#include <vector>

namespace osal_test {

class Interpose {
  public:
    // library: file name of a loaded library ("osal.so"). A symbol that the library does not import
    // fails the test, so that a misspelt name cannot pass for a call that never happened.
    Interpose(const char* library, const char* symbol, void* replacement);
    template <class Function>
    Interpose(const char* library, const char* symbol, Function* replacement)
        : Interpose(library, symbol, reinterpret_cast<void*>(replacement)) {}
    ~Interpose();
    Interpose(const Interpose&) = delete;
    Interpose& operator=(const Interpose&) = delete;

    // True on a thread that has made such objects and not ended them all.
    static bool made_here() { return made_here_ != 0; }

    // What the library would have called.
    void* original() const { return original_; }
    template <class Function>
    Function* original_as() const {
        return reinterpret_cast<Function*>(original_);
    }

  private:
    static inline thread_local int made_here_ = 0;
    std::vector<void**> slots_;
    void* original_ = nullptr;
};

}  // namespace osal_test
