// The digests a Btrfs volume may protect its superblock and tree nodes
// with, besides CRC-32C: xxHash64, SHA-256 and BLAKE2b-256. Small, portable
// and only as fast as metadata checks need.
#pragma once
#include <cstddef>
#include <cstdint>

namespace QORV {
namespace Btrfs {

uint64_t XxHash64(const void* data, size_t size, uint64_t seed = 0);
void Sha256(const void* data, size_t size, uint8_t digest[32]);
// Unkeyed BLAKE2b with a 32-byte digest.
void Blake2b256(const void* data, size_t size, uint8_t digest[32]);

}  // namespace Btrfs
}  // namespace QORV
