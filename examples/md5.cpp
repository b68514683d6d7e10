// Prints the MD5 digest of what it reads from standard input.

#include <UdpSocket/md5.h>

#include <cstdio>

int main() {
    MD5 md5;
    MD5_CTX context;
    md5.MD5Init(&context);
    unsigned char buffer[65536];
    for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, stdin)) > 0;)
        md5.MD5Update(&context, buffer, static_cast<unsigned int>(count));
    if (std::ferror(stdin) != 0) {
        std::perror("standard input");
        return 1;
    }
    unsigned char digest[16];
    md5.MD5Final(&context, digest);
    for (const unsigned char byte : digest)
        std::printf("%02x", byte);
    std::puts("");
}
