#include <UdpSocket/md5.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <utility>

namespace {

using Word = unsigned int;
static_assert(sizeof(Word) == 4);

constexpr size_t kBlockSize = sizeof MD5_CTX::buffer;
constexpr size_t kLengthSize = sizeof MD5_CTX::count;
constexpr size_t kPaddedSize = kBlockSize - kLengthSize; // where the length stands in the last block

constexpr unsigned char kPadding[kBlockSize] = {0x80};

constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

/// 2^32 times |sin(step + 1)|, rounded down.
constexpr Word kSines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

/// The word of the block that a step takes.
constexpr size_t wordOfStep(size_t step) {
    constexpr size_t factors[] = {1, 5, 3, 7};
    constexpr size_t offsets[] = {0, 1, 5, 0};
    return (factors[step / 16] * step + offsets[step / 16]) % 16;
}

/// Words are little-endian and need not be aligned.
Word loadWord(const unsigned char* bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    return std::endian::native == std::endian::little ? word : __builtin_bswap32(word);
}

void storeWord(unsigned char* bytes, Word word) {
    if (std::endian::native != std::endian::little)
        word = __builtin_bswap32(word);
    std::memcpy(bytes, &word, sizeof word);
}

/// One of the 64 steps; the four words change places from step to step instead of being moved. What a step
/// waits for is b, the result of the step before, so each function touches b as late as it can.
template <size_t step>
[[gnu::always_inline]] inline void work(Word (&words)[4], const unsigned char* block) {
    constexpr size_t round = step / 16;
    Word& a = words[(64 - step) % 4];
    const Word b = words[(65 - step) % 4];
    const Word c = words[(66 - step) % 4];
    const Word d = words[(67 - step) % 4];
    a += loadWord(block + 4 * wordOfStep(step)) + kSines[step];
    if constexpr (round == 0) {
        a += d ^ (b & (c ^ d));
    } else if constexpr (round == 1) {
        a += c & ~d; // no bit in common with the next term, so that adding them is the same as "or"
        a += b & d;
    } else if constexpr (round == 2) {
        a += b ^ (c ^ d);
    } else {
        a += c ^ (b | ~d);
    }
    a = b + std::rotl(a, kShifts[round][step % 4]);
}

template <size_t... steps>
[[gnu::always_inline]] inline void workAll(Word (&words)[4], const unsigned char* block,
                                           std::index_sequence<steps...>) {
    (work<steps>(words, block), ...);
}

void transform(Word* state, const unsigned char* blocks, size_t count) {
    Word words[4] = {state[0], state[1], state[2], state[3]};
    for (; count > 0; --count, blocks += kBlockSize) {
        const Word before[4] = {words[0], words[1], words[2], words[3]};
        workAll(words, blocks, std::make_index_sequence<64>());
        for (int i = 0; i < 4; ++i)
            words[i] += before[i];
    }
    std::copy_n(words, 4, state);
}

size_t bytesInBuffer(const MD5_CTX& context) {
    return (context.count[0] >> 3) % kBlockSize;
}

void update(MD5_CTX& context, const unsigned char* input, Word length) {
    const size_t waiting = bytesInBuffer(context);
    const Word bits = length << 3;
    context.count[0] += bits;
    context.count[1] += (length >> 29) + (context.count[0] < bits ? 1 : 0);

    size_t left = length;
    if (waiting > 0) {
        const size_t taken = std::min(left, kBlockSize - waiting);
        std::copy_n(input, taken, context.buffer + waiting);
        if (waiting + taken < kBlockSize)
            return;
        transform(context.state, context.buffer, 1);
        input += taken;
        left -= taken;
    }
    const size_t blocks = left / kBlockSize;
    transform(context.state, input, blocks);
    std::copy_n(input + blocks * kBlockSize, left % kBlockSize, context.buffer);
}

void encode(unsigned char* output, const Word* input, size_t length) {
    for (size_t i = 0; i < length; i += 4)
        storeWord(output + i, input[i / 4]);
}

} // namespace

MD5::MD5() = default;
MD5::~MD5() = default;

void MD5::MD5Init(MD5_CTX* context) {
    context->count[0] = context->count[1] = 0;
    context->state[0] = 0x67452301;
    context->state[1] = 0xefcdab89;
    context->state[2] = 0x98badcfe;
    context->state[3] = 0x10325476;
}

void MD5::MD5Update(MD5_CTX* context, unsigned char* input, unsigned int inputLen) {
    update(*context, input, inputLen);
}

void MD5::MD5Final(MD5_CTX* context, unsigned char* digest) {
    unsigned char length[kLengthSize];
    encode(length, context->count, sizeof length); // before the padding counts as well
    const size_t index = bytesInBuffer(*context);
    const size_t end = index < kPaddedSize ? kPaddedSize : kBlockSize + kPaddedSize;
    update(*context, kPadding, static_cast<Word>(end - index));
    update(*context, length, sizeof length);
    encode(digest, context->state, sizeof context->state);
}

void MD5::MD5Transform(unsigned int* state, unsigned char* block) {
    transform(state, block, 1);
}

void MD5::MD5Encode(unsigned char* output, unsigned int* input, unsigned int len) {
    encode(output, input, len);
}

void MD5::MD5Decode(unsigned int* output, unsigned char* input, unsigned int len) {
    for (size_t i = 0; i < len; i += 4)
        output[i / 4] = loadWord(input + i);
}
