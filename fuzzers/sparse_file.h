// A file that is mostly zeros, written down short: its size (4 bytes), then for each stretch that
// is none its offset (4 bytes), its length (2 bytes) and the bytes. What is not written stays a
// hole.
#ifndef QUENOR_FUZZERS_SPARSE_FILE_H_
#define QUENOR_FUZZERS_SPARSE_FILE_H_

#include "fuzzers/fuzzed_file.h"

namespace quenor::fuzz {

constexpr size_t kLargestSparseFile = 256 * 1024;

// Every input is one; what lies outside the file is left out.
Bytes FromSparse(const uint8_t* data, size_t size);
// Of a file of at most kLargestSparseFile.
Bytes ToSparse(const Bytes& file);
// As WriteFuzzed(), with holes. Returns the size of the file.
size_t WriteFuzzedSparse(const uint8_t* data, size_t size);

}  // namespace quenor::fuzz

#endif  // QUENOR_FUZZERS_SPARSE_FILE_H_
