// Objects that count themselves, and own memory that a leak check would miss.
#pragma once

#include <atomic>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace osal_test {

inline std::atomic<int> alive;

// Throws for a negative key.
struct Counted {
    explicit Counted(int key, std::string text = "") : key(key), text(std::move(text)) {
        if (key < 0) throw std::runtime_error("negative");
        ++alive;
    }
    ~Counted() { --alive; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    const int key;
    std::string text;
    int hits = 0;
};

// Whether an object is the one of a key.
inline auto of(int key) {
    return [key](const Counted& object) { return object.key == key; };
}

// The keys of a scan's objects.
template <class Scan>
std::vector<int> keys(Scan scan) {
    std::vector<int> found;
    for (auto& object : scan)
        found.push_back(object->key);
    return found;
}

}  // namespace osal_test
