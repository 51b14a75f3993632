#include "count.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wctype.h>

#include <algorithm>

namespace wordindex {
namespace {

constexpr std::size_t kChunk = 65536;

// Opens a file as what it was when it was found: a pipe put in its place meanwhile would be waited
// for, a link would lead to a file of somebody else's.
int open_regular(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat status;
    if (file < 0 || (fstat(file, &status) == 0 && S_ISREG(status.st_mode))) return file;
    close(file);
    errno = ESTALE;
    return -1;
}

class File {
  public:
    explicit File(const std::string& path) : file_(open_regular(path)) {}
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

constexpr bool is_ascii_letter(WCHAR unit) {
    return (unit >= 'a' && unit <= 'z') || (unit >= 'A' && unit <= 'Z');
}

bool is_letter(WCHAR unit) {
    return unit < 0x80 ? is_ascii_letter(unit) : iswalpha(unit) != 0;
}

// Cuts a stream of bytes into pieces and those into words, also where two chunks share one.
class Splitter {
  public:
    Splitter(const Client& client, Encoding encoding, WordTable& table, Totals& totals)
        : client_(client),
          encoding_(encoding),
          table_(table),
          totals_(totals),
          piece_(PoolAllocator<char>(client)),
          text_(PoolAllocator<WCHAR>(client)) {}

    void feed(const char* bytes, std::size_t size) {
        totals_.bytes += size;
        for (std::size_t i = 0; i < size; ++i)
            if (static_cast<unsigned char>(bytes[i]) > ' ')
                piece_.push_back(bytes[i]);
            else
                finish();
    }
    void finish() {
        if (piece_.empty()) return;
        if (!convert()) take_ascii_letters();
        add_words();
        piece_.clear();
    }

  private:
    // Makes text of the piece, ended by a zero. A character takes at least one byte.
    bool convert() {
        if (piece_.size() > INT32_MAX) throw std::bad_alloc();
        text_.resize(piece_.size() + 1);
        UINT32 length = static_cast<UINT32>(text_.size());
        const KCSTATUS status = client_.call<&IOsalVtbl::KxMultiByteToWideChar>(
            static_cast<UINT32>(encoding_), static_cast<const CHAR*>(piece_.data()),
            static_cast<INT32>(piece_.size()), text_.data(), &length);
        if (KC_IS_ERROR(status)) return false;
        text_.resize(length + 1);
        return true;
    }
    void take_ascii_letters() {
        text_.assign(piece_.begin(), piece_.end());
        std::replace_if(
            text_.begin(), text_.end(), [](WCHAR unit) { return !is_ascii_letter(unit); }, WCHAR{});
        text_.push_back(0);
    }
    void add_words() {
        const auto end = text_.end() - 1;
        for (auto word = text_.begin(); word != end;) {
            word = std::find_if(word, end, is_letter);
            const auto behind = std::find_if_not(word, end, is_letter);
            if (word != behind) add(&*word, &*behind);
            word = behind;
        }
    }
    void add(PWCHAR word, PWCHAR behind) {
        *behind = 0;
        const auto length = static_cast<UINT32>(behind - word);
        client_.call<&IOsalVtbl::KxCharUpperBuff>(length, word);
        table_.add({word, length});
        ++totals_.words;
    }

    const Client& client_;
    const Encoding encoding_;
    WordTable& table_;
    Totals& totals_;
    std::vector<char, PoolAllocator<char>> piece_;
    std::vector<WCHAR, PoolAllocator<WCHAR>> text_;
};

}  // namespace

int count_file(const Client& client, const std::string& path, Encoding encoding, WordTable& table,
               Totals& totals, const std::function<bool(std::size_t)>& go_on) {
    File file(path);
    if (!file.is_open()) return errno;
    std::vector<char, PoolAllocator<char>> chunk(kChunk, PoolAllocator<char>(client));
    Splitter splitter(client, encoding, table, totals);
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
