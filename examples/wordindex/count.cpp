#include "count.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>

namespace wordindex {
namespace {

constexpr std::size_t kChunk = 64 * 1024;

class File {
  public:
    explicit File(const std::string& path) : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~File() {
        if (file_ >= 0) close(file_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    bool is_open() const { return file_ >= 0; }
    ssize_t read_into(char* buffer, std::size_t size) {
        ssize_t got;
        do
            got = read(file_, buffer, size);
        while (got < 0 && errno == EINTR);
        return got;
    }

  private:
    const int file_;
};

// The lower-case form of each ASCII letter; 0 for every other byte.
constexpr auto kLetters = [] {
    std::array<char, 256> letters{};
    for (int letter = 'a'; letter <= 'z'; ++letter)
        letters[letter] = letters[letter - 'a' + 'A'] = static_cast<char>(letter);
    return letters;
}();

// Cuts a stream of bytes into words, also those that two chunks share.
class Splitter {
  public:
    Splitter(const Client& client, WordTable& table, Totals& totals)
        : table_(table), totals_(totals), word_(PoolAllocator<char>(client)) {}

    void feed(const char* bytes, std::size_t size) {
        totals_.bytes += size;
        for (std::size_t i = 0; i < size; ++i)
            if (const char letter = kLetters[static_cast<unsigned char>(bytes[i])])
                word_.push_back(letter);
            else
                finish();
    }
    void finish() {
        if (word_.empty()) return;
        ++totals_.words;
        word_.push_back('\0');
        table_.add({word_.data(), word_.size() - 1});
        word_.clear();
    }

  private:
    WordTable& table_;
    Totals& totals_;
    std::vector<char, PoolAllocator<char>> word_;
};

}  // namespace

int count_file(const Client& client, const std::string& path, WordTable& table, Totals& totals,
               const std::function<bool(std::size_t)>& go_on) {
    File file(path);
    if (!file.is_open()) return errno;
    std::vector<char, PoolAllocator<char>> chunk(kChunk, PoolAllocator<char>(client));
    Splitter splitter(client, table, totals);
    ssize_t got;
    while ((got = file.read_into(chunk.data(), chunk.size())) > 0) {
        splitter.feed(chunk.data(), static_cast<std::size_t>(got));
        if (!go_on(static_cast<std::size_t>(got))) return ECANCELED;
    }
    if (got < 0) return errno;
    splitter.finish();
    ++totals.files;
    return 0;
}

}  // namespace wordindex
