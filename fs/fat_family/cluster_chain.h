// Cluster chains of the FAT family: a chunked read cache over an allocation
// table, and a chain walk that ends on loops, bad links and a length bound.
#pragma once
#include <cstdint>
#include <vector>

#include "core/api/device.h"
#include "core/api/scanner.h"

namespace QORV {

struct ClusterRun {
  uint32_t first;  // cluster number
  uint32_t count;  // clusters
};

// Reads table entries through one 64 KiB chunk, so walking chains costs one
// device read per chunk of the table rather than one per link.
class TableCache {
 public:
  explicit TableCache(api::CLibEnv* env) : env_(env) {}
  ~TableCache();
  TableCache(const TableCache&) = delete;
  TableCache& operator=(const TableCache&) = delete;

  // The table lies at [offset, offset + bytes) of `dev`.
  void Attach(api::IDeviceRWBlock* dev, uint64_t offset, uint64_t bytes);
  // The little-endian entry `index` of `width` bytes (2 or 4);
  // ERR_INCONSISTENT when it lies past the table.
  api::status_t Entry(uint64_t index, uint32_t width, uint32_t* out);

 private:
  static constexpr uint32_t kChunk = 64 * 1024;
  api::CLibEnv* env_;
  api::IDeviceRWBlock* dev_ = nullptr;
  uint64_t offset_ = 0;
  uint64_t bytes_ = 0;
  uint8_t* chunk_ = nullptr;
  uint64_t chunkIndex_ = UINT64_MAX;
};

enum class ChainStop {
  kEndMark,  // the chain's end-of-chain mark was reached
  kLimit,    // maxClusters were gathered and the chain goes on
  kBroken,   // a link out of range, a free or bad cluster, or a loop
};

// Follows a chain from `start`, gathering its clusters as runs in `out`
// (kept even when the chain breaks). `table` provides:
//   api::status_t NextCluster(uint32_t c, uint32_t* next);
//   bool IsEndOfChain(uint32_t next) const;
//   bool IsValidCluster(uint32_t cluster) const;
// Brent's cycle detection catches a loop within a few times its length.
template <class Table>
api::status_t FollowChain(Table& table, uint32_t start, uint32_t maxClusters, std::vector<ClusterRun>* out,
                          ChainStop* stop) {
  out->clear();
  *stop = ChainStop::kBroken;
  if (!table.IsValidCluster(start)) return api::QORV_OK;
  uint32_t tortoise = start, power = 1, lambda = 1;
  uint32_t c = start;
  for (uint32_t steps = 1;; ++steps) {
    if (!out->empty() && out->back().first + out->back().count == c)
      ++out->back().count;
    else
      out->push_back({c, 1});
    uint32_t next;
    QORV_TRY(table.NextCluster(c, &next));
    if (table.IsEndOfChain(next)) {
      *stop = ChainStop::kEndMark;
      return api::QORV_OK;
    }
    if (steps >= maxClusters) {
      *stop = ChainStop::kLimit;
      return api::QORV_OK;
    }
    if (!table.IsValidCluster(next) || next == tortoise) return api::QORV_OK;
    if (power == lambda) {
      tortoise = next;
      power *= 2;
      lambda = 0;
    }
    ++lambda;
    c = next;
  }
}

}  // namespace QORV
