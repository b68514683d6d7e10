/// @file
/// OpenSSL's MD5, whose names would clash with ours in one source.
#pragma once

#include <cstddef>

namespace bench {

void opensslMd5(const unsigned char* bytes, std::size_t size, unsigned char* digest);

} // namespace bench
