/// @file
/// The MD5 message digest of RFC 1321.
///
/// MD5 tells whether data changed by accident; it does not protect against anyone who wants to deceive.
#pragma once

/// A digest in the making. MD5::MD5Init makes it valid; it may be copied at any time, to go on from there
/// twice.
struct MD5_CTX {
    unsigned int count[2];    ///< length so far in bits modulo 2^64, low word first
    unsigned int state[4];    ///< chaining values A, B, C, D
    unsigned char buffer[64]; ///< the bytes of the block that is not complete yet
};

/// Computes digests: MD5Init once, MD5Update any number of times, MD5Final once.
///
/// Threads and ownership: an object has no data, so one object serves any number of contexts on any number of
/// threads; one context belongs to one thread at a time. Nothing is allocated and nothing can fail. All
/// pointers must be valid for the lengths given; input is only read.
class __attribute__((visibility("default"))) MD5 {
public:
    MD5();
    virtual ~MD5();

    /// Begins a new digest, whatever the context held.
    void MD5Init(MD5_CTX* context);

    /// Adds @p inputLen bytes to the message. Pieces of any size give the same digest as the whole.
    /// @param input may be null when @p inputLen is 0
    void MD5Update(MD5_CTX* context, unsigned char* input, unsigned int inputLen);

    /// Ends the message and writes its digest of 16 bytes. The context keeps its last state: it is of no
    /// further use until MD5Init.
    void MD5Final(MD5_CTX* context, unsigned char* digest);

    /// Works one block of 64 bytes into the four state words.
    void MD5Transform(unsigned int* state, unsigned char* block);

    /// Words to bytes, low byte first. @param len number of bytes, a multiple of 4
    void MD5Encode(unsigned char* output, unsigned int* input, unsigned int len);

    /// Bytes, low byte first, to words. @param len number of bytes, a multiple of 4
    void MD5Decode(unsigned int* output, unsigned char* input, unsigned int len);
};
