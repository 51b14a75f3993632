#include <cstdio>
#include <exception>
#include <memory_resource>
#include <mutex>
#include <string>
#include <vector>

#include "osal/osal.hpp"

int main() try {
    kx::Runtime runtime;
    kx::Service service("hello");
    kx::Pool pool(service);
    kx::Mutex mutex(service);
    std::pmr::vector<std::pmr::string> greetings(&pool);
    const auto greet = [&](const char* whom) {
        std::lock_guard lock(mutex);
        greetings.emplace_back("Hello, ").append(whom);
    };
    kx::Thread here(service, greet, "world"), there(service, greet, "component");
    here.join();
    there.join();
    std::printf("%zu greetings, the first: %s\n", greetings.size(), greetings[0].c_str());
} catch (const std::exception& error) {
    std::fprintf(stderr, "hello: %s\n", error.what());
    return 1;
}
