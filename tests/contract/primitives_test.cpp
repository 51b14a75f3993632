// Memory and string primitives and the hashes, by export and by slot, beside plain models.
#include "osal/primitives.h"

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "support/service_test.h"

namespace osal_test {
namespace {

// Pages that can be written, ended by one that cannot be touched: what reads or writes past end()
// faults, under every build.
class GuardedPages {
  public:
    GuardedPages() {
        memory_ = static_cast<UCHAR*>(
            mmap(nullptr, kPages * page() + page(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (memory_ == MAP_FAILED) std::abort();
        mprotect(memory_, kPages * page(), PROT_READ | PROT_WRITE);
    }
    ~GuardedPages() { munmap(memory_, kPages * page() + page()); }
    UCHAR* end() { return memory_ + kPages * page(); }

  private:
    static constexpr std::size_t kPages = 2;
    static std::size_t page() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }
    UCHAR* memory_;
};

class Primitives : public BothWays {
  protected:
    GuardedPages left, right;
};
OSAL_BOTH_WAYS(Primitives);

// --- KxCompareMemory

TEST_P(Primitives, CompareGivesTheIndexOfTheFirstDifference) {
    EXPECT_EQ(CALL(KxCompareMemory)(osal, "abcd", "abXd", 4), 2u);
    EXPECT_EQ(CALL(KxCompareMemory)(osal, "abcd", "Xbcd", 4), 0u);
}

TEST_P(Primitives, CompareOfEqualBuffersGivesTheLength) {
    EXPECT_EQ(CALL(KxCompareMemory)(osal, "abcd", "abcd", 4), 4u);
}

TEST_P(Primitives, CompareGoesPastZeroBytes) {
    EXPECT_EQ(CALL(KxCompareMemory)(osal, "a\0cd", "a\0cX", 4), 3u);
}

TEST_P(Primitives, CompareWithANullPointerOrNoLengthGivesZero) {
    EXPECT_EQ(CALL(KxCompareMemory)(osal, nullptr, "abcd", 4), 0u);
    EXPECT_EQ(CALL(KxCompareMemory)(osal, "abcd", nullptr, 4), 0u);
    EXPECT_EQ(CALL(KxCompareMemory)(osal, nullptr, nullptr, 4), 0u);
    EXPECT_EQ(CALL(KxCompareMemory)(osal, "abcd", "abcd", 0), 0u);
}

// Both buffers end at a page that cannot be read, so every length comes at its own alignment.
TEST_P(Primitives, CompareFindsEveryDifferenceOfEveryLengthAtPageEnds) {
    for (UINT32 length = 1; length <= 100; ++length) {
        UCHAR* a = left.end() - length;
        UCHAR* b = right.end() - length;
        memset(a, 0x5A, length);
        memset(b, 0x5A, length);
        ASSERT_EQ(CALL(KxCompareMemory)(osal, a, b, length), length);
        for (UINT32 at = 0; at < length; ++at) {
            b[at] ^= 0x80;
            ASSERT_EQ(CALL(KxCompareMemory)(osal, a, b, length), at) << "of " << length;
            b[at] ^= 0x80;
        }
    }
}

TEST_P(Primitives, CompareReportsTheFirstOfTwoDifferencesAtEveryPairOfAlignments) {
    for (UINT32 a_at = 0; a_at < 17; ++a_at)
        for (UINT32 b_at = 0; b_at < 17; ++b_at) {
            UCHAR* a = left.end() - 200 + a_at;
            UCHAR* b = right.end() - 200 + b_at;
            memset(a, 1, 180);
            memset(b, 1, 180);
            for (UINT32 first : {0u, 1u, 15u, 16u, 17u, 47u, 63u, 64u, 130u}) {
                b[first] = 2;
                b[first + 20] = 2;
                ASSERT_EQ(CALL(KxCompareMemory)(osal, a, b, 180), first);
                b[first] = b[first + 20] = 1;
            }
        }
}

// --- copy, move, fill, zero

TEST_P(Primitives, CopyCopiesExactlyTheLengthAtPageEnds) {
    for (UINT32 length = 0; length <= 100; ++length) {
        for (UINT32 i = 0; i < 101; ++i)
            left.end()[-1 - static_cast<int>(i)] = static_cast<UCHAR>(i);
        memset(right.end() - 101, 0xEE, 101);
        CALL(KxCopyMemory)(osal, right.end() - length, left.end() - length, length);
        ASSERT_EQ(memcmp(right.end() - length, left.end() - length, length), 0);
        ASSERT_EQ(right.end()[-1 - static_cast<int>(length)], 0xEE);
    }
}

TEST_P(Primitives, MoveCopiesBetweenOverlappingAreasBothWays) {
    std::string text = "0123456789";
    CALL(KxMoveMemory)(osal, text.data() + 2, text.data(), 8);
    EXPECT_EQ(text, "0101234567");
    text = "0123456789";
    CALL(KxMoveMemory)(osal, text.data(), text.data() + 2, 8);
    EXPECT_EQ(text, "2345678989");
}

TEST_P(Primitives, FillSetsExactlyTheLengthAtPageEnds) {
    for (UINT32 length = 0; length <= 100; ++length) {
        memset(right.end() - 101, 0xEE, 101);
        CALL(KxFillMemory)(osal, right.end() - length, length, 0x9C);
        for (UINT32 i = 1; i <= length; ++i)
            ASSERT_EQ(*(right.end() - i), 0x9C);
        ASSERT_EQ(*(right.end() - length - 1), 0xEE);
    }
}

TEST_P(Primitives, ZeroClearsExactlyTheLength) {
    std::string text(20, 'x');
    CALL(KxZeroMemory)(osal, text.data() + 3, 11);
    EXPECT_EQ(text, std::string(3, 'x') + std::string(11, '\0') + std::string(6, 'x'));
}

TEST_P(Primitives, CopyAndMoveDoNothingWithANullPointer) {
    char text[] = "text";
    CALL(KxCopyMemory)(osal, nullptr, text, 4);
    CALL(KxCopyMemory)(osal, text, nullptr, 4);
    CALL(KxMoveMemory)(osal, nullptr, text, 4);
    CALL(KxMoveMemory)(osal, text, nullptr, 4);
    EXPECT_STREQ(text, "text");
}

TEST_P(Primitives, FillAndZeroDoNothingWithANullPointer) {
    CALL(KxFillMemory)(osal, nullptr, 4, 1);
    CALL(KxZeroMemory)(osal, nullptr, 4);
}

// --- lengths

TEST_P(Primitives, LengthsOfNullAreZero) {
    EXPECT_EQ(CALL(KxStrlen)(osal, nullptr), 0u);
    EXPECT_EQ(CALL(KxStrlenW)(osal, nullptr), 0u);
}

TEST_P(Primitives, StrlenCountsBytesUpToThePageEnd) {
    memset(left.end() - 101, 'x', 101);
    left.end()[-1] = 0;
    for (UINT32 length = 0; length <= 100; ++length)
        ASSERT_EQ(CALL(KxStrlen)(osal, reinterpret_cast<char*>(left.end() - 1 - length)), length);
}

// A length at every even and odd address, the terminator being the last unit before a page that
// cannot be read. Units have one byte of zero, which must not be taken for the end.
TEST_P(Primitives, StrlenWCountsUnitsAtEveryAddressUpToThePageEnd) {
    for (UINT32 shift : {0u, 1u})
        for (UCHAR low : {UCHAR{0}, UCHAR{0x41}})
            for (UINT32 length = 0; length <= 100; ++length) {
                UCHAR* text = left.end() - shift - 2 * (length + 1);
                for (UINT32 i = 0; i < length; ++i) {
                    text[2 * i] = low;
                    text[2 * i + 1] = low == 0 ? 0x41 : 0;
                }
                text[2 * length] = text[2 * length + 1] = 0;
                ASSERT_EQ(CALL(KxStrlenW)(osal, reinterpret_cast<WCHAR*>(text)), length)
                    << "shift " << shift << ", low byte " << int{low};
            }
}

TEST_P(Primitives, StrlenWStopsAtTheFirstOfSeveralZeroUnits) {
    WCHAR text[64] = {};
    for (UINT32 start = 0; start < 16; ++start)
        for (UINT32 length = 0; length < 40; ++length) {
            for (UINT32 i = 0; i < 64; ++i)
                text[i] = 0;
            for (UINT32 i = 0; i < length; ++i)
                text[start + i] = 0xFFFF;
            ASSERT_EQ(CALL(KxStrlenW)(osal, text + start), length);
        }
}

// --- hashes

// The documented steps on wide integers, written without the library's tricks.
UINT32 model_hash(const std::vector<UCHAR>& bytes, UINT32 table_size) {
    UINT64 hash = 0;
    for (UCHAR byte : bytes) {
        const INT64 value = byte < 0x80 ? byte : INT64{byte} - 256;
        hash = static_cast<UINT64>(static_cast<INT64>(hash * 16) + value) % 0x100000000u;
        const UINT64 top = hash / 0x10000000u;
        if (top != 0) hash ^= top * 16;
        hash %= 0x10000000u;
    }
    return static_cast<UINT32>(hash % table_size);
}

TEST_P(Primitives, HashesOfEmptyStringsAreZeroForAnyTableSize) {
    const WCHAR empty[] = {0};
    EXPECT_EQ(CALL(KxStrHash)(osal, "", 0), 0u);
    EXPECT_EQ(CALL(KxStrHash)(osal, "", 1000), 0u);
    EXPECT_EQ(CALL(KxStrHashW)(osal, empty, 0), 0u);
    EXPECT_EQ(CALL(KxStrHashW)(osal, empty, 1000), 0u);
}

TEST_P(Primitives, HashesOfShortStringsAreAsPublished) {
    const WCHAR wide[] = {'A', 0};
    EXPECT_EQ(CALL(KxStrHash)(osal, "A", 1000), 65u);
    EXPECT_EQ(CALL(KxStrHash)(osal, "AB", 1000), 106u);
    EXPECT_EQ(CALL(KxStrHashW)(osal, wide, 1000), 40u);
}

TEST_P(Primitives, HashTakesBytesAsSigned) {
    // 0xFF is -1: 0xFFFFFFFF, less its top bits, which are folded in at bit 4.
    EXPECT_EQ(CALL(KxStrHash)(osal, "\xFF", 0xFFFFFFFF), (0xFFFFFFFFu ^ 0xF0u) & 0x0FFFFFFFu);
    const WCHAR wide[] = {0x00FF, 0};
    EXPECT_EQ(CALL(KxStrHashW)(osal, wide, 0xFFFFFFFF), model_hash({0xFF, 0x00}, 0xFFFFFFFF));
}

TEST_P(Primitives, HashesEqualTheModelOnRandomBytes) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 3000; ++round) {
        std::vector<UCHAR> bytes(1 + random() % 40);
        for (UCHAR& byte : bytes)
            byte = static_cast<UCHAR>(1 + random() % 255);
        const std::string text(bytes.begin(), bytes.end());
        const UINT32 table_size = 1 + static_cast<UINT32>(random()) % 0xFFFFFFFE;
        ASSERT_EQ(CALL(KxStrHash)(osal, text.c_str(), table_size), model_hash(bytes, table_size));
    }
}

TEST_P(Primitives, WideHashFeedsTheLowByteFirstAtOddAddressesToo) {
    std::mt19937 random(7);
    for (int round = 0; round < 3000; ++round) {
        const std::size_t units = 1 + random() % 20;
        std::vector<UCHAR> bytes(2 * units);
        for (std::size_t i = 0; i < bytes.size(); i += 2) {
            bytes[i] = static_cast<UCHAR>(random());
            bytes[i + 1] = static_cast<UCHAR>(bytes[i] == 0 ? 1 + random() % 255 : random());
        }
        alignas(2) UCHAR text[64] = {};
        const std::size_t shift = static_cast<std::size_t>(round % 2);
        memcpy(text + shift, bytes.data(), bytes.size());
        const UINT32 table_size = 1 + static_cast<UINT32>(random()) % 100000;
        ASSERT_EQ(CALL(KxStrHashW)(osal, reinterpret_cast<WCHAR*>(text + shift), table_size),
                  model_hash(bytes, table_size));
    }
}

TEST_P(Primitives, TheInstanceIsIgnored) {
    char text[] = "abc";
    const WCHAR wide[] = {'A', 0};
    EXPECT_EQ(CALL(KxCompareMemory)(nullptr, "abc", "abd", 3), 2u);
    CALL(KxCopyMemory)(nullptr, text, "x", 1);
    CALL(KxMoveMemory)(nullptr, text + 1, text, 1);
    CALL(KxFillMemory)(nullptr, text + 2, 1, 'y');
    EXPECT_STREQ(text, "xxy");
    CALL(KxZeroMemory)(nullptr, text, 3);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(CALL(KxStrlen)(nullptr, "abc"), 3u);
    EXPECT_EQ(CALL(KxStrlenW)(nullptr, wide), 1u);
    EXPECT_EQ(CALL(KxStrHash)(nullptr, "A", 1000), 65u);
    EXPECT_EQ(CALL(KxStrHashW)(nullptr, wide, 1000), 40u);
}

using HashDeathTest = Primitives;
OSAL_BOTH_WAYS(HashDeathTest);

TEST_P(HashDeathTest, ATableOfSizeZeroIsADivisionByZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(CALL(KxStrHash)(osal, "A", 0), "");
}

}  // namespace
}  // namespace osal_test
