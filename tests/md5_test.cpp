#include <UdpSocket/md5.h>

#include <gmock/gmock.h>

#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

namespace {

/// The digest of what a context has taken so far; the context can go on afterwards.
std::string digestOf(MD5_CTX context) {
    unsigned char digest[16];
    MD5().MD5Final(&context, digest);
    unsigned char kept[16];
    MD5().MD5Encode(kept, context.state, sizeof kept);
    EXPECT_THAT(kept, testing::ElementsAreArray(digest)) << "the context keeps its last state";
    std::string text;
    for (const unsigned char byte : digest) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

/// The digest of a message that is given in two pieces, the first @p split bytes long.
std::string digestOf(std::string message, size_t split = 0) {
    auto* const bytes = reinterpret_cast<unsigned char*>(message.data());
    MD5_CTX context;
    MD5().MD5Init(&context);
    MD5().MD5Update(&context, bytes, static_cast<unsigned int>(split));
    MD5().MD5Update(&context, bytes + split, static_cast<unsigned int>(message.size() - split));
    return digestOf(context);
}

TEST(Md5, EveryLengthAroundABlockAgreesWithMd5sumHoweverItIsSplit) {
    std::minstd_rand engine(6720);
    std::ofstream sums("/run/sums");
    for (size_t size = 0; size <= 200; ++size) {
        std::string message(size == 200 ? 1000003 : size, '\0');
        for (char& byte : message)
            byte = static_cast<char>(engine() >> 8);
        const std::string digest = digestOf(message);
        for (size_t split = 1; split <= size; ++split)
            ASSERT_EQ(digestOf(message, split), digest) << split << " of " << message.size();
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
    for (const unsigned int first : {0U, size - 165}) { // in pieces, the low word's overflow is carried
        MD5_CTX context;
        MD5().MD5Init(&context);
        MD5().MD5Update(&context, static_cast<unsigned char*>(zeros), first);
        MD5().MD5Update(&context, static_cast<unsigned char*>(zeros), size - first);
        EXPECT_THAT(context.count, testing::ElementsAre(808U, 1U));
        EXPECT_EQ(digestOf(context), "edf30fd644ead34569f8ec2ca92d5bfc") << "as md5sum has it";
    }
    ::munmap(zeros, size);
}

} // namespace
