#include "agent/libZel/pack_ahead.h"

#include <libdeflate.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "agent/libZel/source_tree.h"

namespace {

constexpr uint64_t kMaxAheadBytes = 32 << 20;
constexpr unsigned kMaxThreads = 8;
// Files so small do not become smaller.
constexpr size_t kTinyBytes = 16;

}  // namespace

// Keeps what it needs for one file after another.
class PackAhead::Worker {
 public:
  explicit Worker(int level) {
    if (level == 0) return;
    packer_.reset(libdeflate_alloc_compressor(level));
    if (!packer_) throw std::bad_alloc();
  }

  Packed Pack(const Job& job) {
    Packed packed;
    file_system::SourceFile file;
    packed.error = file.Open(job.path);
    if (packed.error != 0) return packed;
    // One byte more than there should be tells that the file has grown.
    content_.resize(static_cast<size_t>(std::min(file.SizeBytes(), kSmallBytes)) + 1);
    size_t count = 0;
    packed.error = file.Read(content_.data(), content_.size(), &count);
    if (packed.error != 0) return packed;
    packed.isTooLarge = count == content_.size();
    if (packed.isTooLarge) return packed;
    packed.sizeBytes = count;
    packed.crc = libdeflate_crc32(0, content_.data(), count);
    if (!Deflate(count, &packed)) packed.bytes.assign(content_.begin(), content_.begin() + count);
    return packed;
  }

 private:
  // False when that does not make it smaller.
  bool Deflate(size_t count, Packed* packed) {
    if (!packer_ || count < kTinyBytes) return false;
    room_.resize(count - 1);
    const size_t packedBytes = libdeflate_deflate_compress(packer_.get(), content_.data(), count,
                                                           room_.data(), room_.size());
    if (packedBytes == 0) return false;
    packed->bytes.assign(room_.begin(), room_.begin() + packedBytes);
    packed->isDeflated = true;
    return true;
  }

  struct Free {
    void operator()(libdeflate_compressor* packer) const { libdeflate_free_compressor(packer); }
  };

  std::unique_ptr<libdeflate_compressor, Free> packer_;
  std::vector<char> content_;
  std::vector<char> room_;
};

PackAhead::PackAhead(std::vector<Job> jobs, int level)
    : jobs_(std::move(jobs)), level_(level), done_(jobs_.size()) {
  const unsigned wanted = std::clamp(std::thread::hardware_concurrency(), 1u, kMaxThreads);
  const size_t count = std::min<size_t>(wanted, jobs_.size());
  threads_.reserve(count);
  try {
    while (threads_.size() < count) threads_.emplace_back([this] { Work(); });
  } catch (...) {
    // Those that run do the others' work.
    if (threads_.empty()) throw;
  }
}

PackAhead::~PackAhead() {
  {
    const std::lock_guard lock(mutex_);
    isStopped_ = true;
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

// Jobs are begun in order, so the one that is waited for is never kept from beginning by others.
bool PackAhead::Next(size_t* index) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] {
    return isStopped_ || next_ == jobs_.size() || aheadBytes_ == 0 ||
           aheadBytes_ + jobs_[next_].sizeBytes <= kMaxAheadBytes;
  });
  if (isStopped_ || next_ == jobs_.size()) return false;
  *index = next_++;
  aheadBytes_ += jobs_[*index].sizeBytes;
  return true;
}

void PackAhead::Work() {
  std::unique_ptr<Worker> worker;
  size_t index = 0;
  while (Next(&index)) {
    Done done;
    try {
      if (!worker) worker = std::make_unique<Worker>(level_);
      done.packed = worker->Pack(jobs_[index]);
    } catch (...) {
      done.packed = {};
      done.packed.error = ENOMEM;
    }
    done.countedBytes = jobs_[index].sizeBytes;
    const std::lock_guard lock(mutex_);
    done_[index] = std::move(done);
    changed_.notify_all();
  }
}

PackAhead::Packed PackAhead::Take(size_t index) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return done_[index].has_value(); });
  Done done = *std::exchange(done_[index], std::nullopt);
  aheadBytes_ -= done.countedBytes;
  changed_.notify_all();
  return std::move(done.packed);
}
