#include "openssl_md5.h"

#define OPENSSL_SUPPRESS_DEPRECATED // the direct call; the one that is not deprecated costs more
#include <openssl/md5.h>

namespace bench {

void opensslMd5(const unsigned char* bytes, std::size_t size, unsigned char* digest) {
    MD5(bytes, size, digest);
}

} // namespace bench
