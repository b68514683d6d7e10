#include "test.h"

#include <UdpSocket/md5.h>

#include <iomanip>
#include <random>

namespace {

/// The digest of @p size bytes that are given in two pieces, the first @p split bytes long.
std::string digestOf(void* message, unsigned int size, unsigned int split) {
    auto* const bytes = static_cast<unsigned char*>(message);
    MD5_CTX context;
    MD5().MD5Init(&context);
    MD5().MD5Update(&context, bytes, split);
    MD5().MD5Update(&context, bytes + split, size - split);
    unsigned char digest[16];
    MD5().MD5Final(&context, digest);
    unsigned char kept[16];
    MD5().MD5Encode(kept, context.state, sizeof kept);
    EXPECT_THAT(kept, testing::ElementsAreArray(digest)) << "the context keeps its last state";
    unsigned int state[4];
    MD5().MD5Decode(state, kept, sizeof kept);
    EXPECT_THAT(state, testing::ElementsAreArray(context.state));
    std::ostringstream text;
    for (const unsigned int byte : digest)
        text << std::hex << std::setw(2) << std::setfill('0') << byte;
    return text.str();
}

TEST(Md5, EveryLengthAroundABlockAgreesWithMd5sumHoweverItIsSplit) {
    std::minstd_rand engine(6720);
    std::ofstream sums("/run/sums");
    for (unsigned int size = 0; size <= 200; ++size) {
        std::string message(size, '\0');
        for (char& byte : message)
            byte = static_cast<char>(engine() >> 8);
        const std::string digest = digestOf(message.data(), size, 0);
        for (unsigned int split = 1; split <= size; ++split)
            ASSERT_EQ(digestOf(message.data(), size, split), digest) << split << " of " << size;
        const std::string file = "/run/" + std::to_string(size);
        std::ofstream(file, std::ios::binary) << message;
        sums << digest << "  " << file << "\n";
    }
    sums.close();
    EXPECT_EQ(std::system("md5sum --check --strict --quiet /run/sums"), 0);
}

TEST(Md5, MessageBeyond512MiBHasTheSameDigestAtOnceAndInPieces) {
    constexpr unsigned int size = (1U << 29) + 101; // 2^32 bits and a little more
    void* const zeros = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(zeros, MAP_FAILED);
    for (const unsigned int first : {0U, size - 165}) // in pieces, the low word's overflow is carried
        EXPECT_EQ(digestOf(zeros, size, first), "edf30fd644ead34569f8ec2ca92d5bfc") << "as md5sum has it";
    ::munmap(zeros, size);
}

} // namespace
