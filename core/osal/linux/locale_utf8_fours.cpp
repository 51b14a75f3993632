// UTF-8 of four units at a time.
//
// The bytes of each unit are made in a lane of their own, and one shuffle brings them together. No
// branch but that for runs of ASCII looks at the units, so that a text may change between alphabets
// as it likes.
#include <cpuid.h>
#include <tmmintrin.h>

#include <array>

#include "osal/linux/internal/utf8_fours.h"

namespace osal::fast {
namespace {

constexpr std::size_t kUnits = 4;
constexpr std::size_t kVector = sizeof(__m128i);

// How the bytes of four units come together. Units of more than one byte have their bit in the
// lower half of the index, those of three in the upper half too.
struct Joint {
    UCHAR from[kVector];
    UCHAR length;
};

constexpr Joint joint(UINT32 index) {
    Joint result = {};
    UCHAR length = 0;
    for (UINT32 unit = 0; unit < kUnits; ++unit) {
        const UINT32 more = (index >> unit & 1) + (index >> (unit + kUnits) & 1);
        for (UINT32 byte = 0; byte <= more; ++byte)
            result.from[length++] = static_cast<UCHAR>(unit * 4 + byte);
    }
    result.length = length;
    return result;
}

constexpr std::array<Joint, 256> make_joints() {
    std::array<Joint, 256> joints = {};
    for (UINT32 index = 0; index < joints.size(); ++index)
        joints[index] = joint(index);
    return joints;
}
constexpr auto kJoints = make_joints();

// Set at start-up.
constinit bool can_shuffle = false;

#define SHUFFLING [[gnu::target("ssse3"), gnu::always_inline]] inline

SHUFFLING __m128i choose(__m128i which, __m128i if_set, __m128i otherwise) {
    return _mm_or_si128(_mm_and_si128(which, if_set), _mm_andnot_si128(which, otherwise));
}

SHUFFLING UINT32 lanes_of(__m128i which) {
    return static_cast<UINT32>(_mm_movemask_ps(_mm_castsi128_ps(which)));
}

// Writes a vector of bytes, of which so many as it returns are those of the units; 0 if one is a
// surrogate.
SHUFFLING std::size_t put_four(const WCHAR* in, UCHAR* out) {
    const __m128i units =
        _mm_unpacklo_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(in)), __m128i{});
    const __m128i top = _mm_and_si128(units, _mm_set1_epi32(0xF800));
    if (lanes_of(_mm_cmpeq_epi32(top, _mm_set1_epi32(0xD800))) != 0) return 0;
    const __m128i six_bits = _mm_set1_epi32(0x3F);
    const __m128i low = _mm_and_si128(units, six_bits);
    const __m128i upper = _mm_srli_epi32(units, 6);
    const __m128i two =
        _mm_or_si128(_mm_or_si128(upper, _mm_slli_epi32(low, 8)), _mm_set1_epi32(0x80C0));
    const __m128i middle = _mm_slli_epi32(_mm_and_si128(upper, six_bits), 8);
    const __m128i outer = _mm_or_si128(_mm_srli_epi32(units, 12), _mm_slli_epi32(low, 16));
    const __m128i three = _mm_or_si128(_mm_or_si128(middle, outer), _mm_set1_epi32(0x8080E0));
    const __m128i has_two = _mm_cmpgt_epi32(units, _mm_set1_epi32(0x7F));
    const __m128i has_three = _mm_cmpgt_epi32(units, _mm_set1_epi32(0x7FF));
    const __m128i bytes = choose(has_three, three, choose(has_two, two, units));
    const Joint& joint = kJoints[lanes_of(has_two) | lanes_of(has_three) << kUnits];
    const auto* from = reinterpret_cast<const __m128i*>(joint.from);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                     _mm_shuffle_epi8(bytes, _mm_loadu_si128(from)));
    return joint.length;
}

constexpr std::size_t kRunUnits = kVector / sizeof(WCHAR);

// Writes the bytes of a vector of units if all are ASCII.
SHUFFLING bool put_ascii(const WCHAR* in, UCHAR* out) {
    const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i beyond = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xFF80)));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(beyond, __m128i{})) != 0xFFFF) return false;
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(units, units));
    return true;
}

std::size_t difference(std::size_t a, std::size_t b) {
    return a > b ? a - b : 0;
}

// How many units may be taken. A vector reaches beyond the bytes of its units: it must end before
// the room does, which must not be filled, and later units must write over what is none of theirs,
// so that nothing changes behind the result.
std::size_t units_for(const FromWide& at) {
    constexpr std::size_t kLongest = 3;
    const std::size_t by_room = difference(at.room(), kVector - kLongest * kUnits + 1) / kLongest;
    return std::min(difference(at.left(), kVector - kUnits), by_room);
}

[[gnu::target("ssse3")]] void pass_shuffled(FromWide& at, std::size_t count) {
    const WCHAR* in = at.in;
    UCHAR* out = at.out;
    for (std::size_t done = 0; count - done >= kUnits;
         done = static_cast<std::size_t>(in - at.in)) {
        if (count - done >= kRunUnits && put_ascii(in, out)) {
            in += kRunUnits;
            out += kRunUnits;
            continue;
        }
        const std::size_t length = put_four(in, out);
        if (length == 0) break;
        in += kUnits;
        out += length;
    }
    at.in = in;
    at.out = out;
}

}  // namespace

void look_at_processor() {
    unsigned a, b, c = 0, d;
    can_shuffle = __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & bit_SSSE3) != 0;
}

void pass_fours(FromWide& at, std::size_t count) {
    // For fewer, the way here and back takes longer than they do one by one.
    constexpr std::size_t kFewest = 8;
    const std::size_t units = std::min(units_for(at), count);
    if (can_shuffle && units >= kFewest) pass_shuffled(at, units);
}

}  // namespace osal::fast
