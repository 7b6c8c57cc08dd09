#include "agent/libZel/pack_ahead.h"

#include <libdeflate.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "agent/libZel/source_tree.h"

namespace {

constexpr unsigned kMaxThreads = 8;

// What a job becomes, as far as is known.
uint64_t PiecesOf(const PackAhead::Job& job) {
  return job.sizeBytes <= PackAhead::kSmallBytes ? 1 : job.sizeBytes / PackAhead::kBlockBytes + 1;
}

// A block of a file with what stands in front of it.
struct Block {
  std::string_view before;
  std::string_view content;
  bool isLast = false;
};

PackAhead::Piece PieceOf(std::string_view content) {
  PackAhead::Piece piece;
  piece.sizeBytes = content.size();
  piece.crc = libdeflate_crc32(0, content.data(), content.size());
  return piece;
}

}  // namespace

// Reads a large file from its beginning to its end, wherever that is by then.
class PackAhead::BlockReader {
 public:
  int Open(const std::filesystem::path& path) { return file_.Open(path); }

  // What stands in front of a block is what was read before: the file may have changed since.
  int Read(std::vector<char>* room, Block* block) {
    constexpr size_t kWindowBytes = Compressor::kWindowBytes;
    room->resize(kWindowBytes + kBlockBytes);
    char* const begin = room->data() + kWindowBytes;
    std::copy(before_.begin(), before_.end(), begin - before_.size());
    size_t count = 0;
    const int error = file_.Read(begin, kBlockBytes, &count);
    if (error != 0) return error;
    *block = {{begin - before_.size(), before_.size()}, {begin, count}, count < kBlockBytes};
    if (!block->isLast) before_.assign(begin + count - kWindowBytes, begin + count);
    return 0;
  }

 private:
  file_system::SourceFile file_;
  std::vector<char> before_;
};

// Keeps what it needs for one piece after another.
class PackAhead::Packer {
 public:
  explicit Packer(std::unique_ptr<Compressor> compressor) : compressor_(std::move(compressor)) {}

  Done PackWhole(const std::filesystem::path& path) {
    Done done;
    file_system::SourceFile file;
    done.piece.error = file.Open(path);
    if (done.piece.error != 0) return done;
    // One byte more than there should be tells that the file has grown.
    room_.resize(static_cast<size_t>(std::min(file.SizeBytes(), kSmallBytes)) + 1);
    size_t count = 0;
    done.piece.error = file.Read(room_.data(), room_.size(), &count);
    if (done.piece.error != 0) return done;
    done.hasGrown = count == room_.size();
    if (done.hasGrown) return done;
    const std::string_view content(room_.data(), count);
    done.piece = PieceOf(content);
    done.piece.isDeflated = compressor_ && compressor_->PackWhole(content, &done.piece.bytes);
    if (!done.piece.isDeflated) done.piece.bytes.assign(content.begin(), content.end());
    return done;
  }

  int Read(BlockReader* reader) { return reader->Read(&room_, &block_); }
  bool HasReadLast() const { return block_.isLast; }
  // What has been read.
  Piece PackBlock() {
    Piece piece = PieceOf(block_.content);
    piece.isLast = block_.isLast;
    piece.isDeflated = compressor_ != nullptr;
    if (piece.isDeflated) {
      compressor_->PackBlock(block_.before, block_.content, block_.isLast, &piece.bytes);
    } else {
      piece.bytes.assign(block_.content.begin(), block_.content.end());
    }
    return piece;
  }

 private:
  const std::unique_ptr<Compressor> compressor_;
  std::vector<char> room_;
  Block block_;
};

unsigned PackAhead::ThreadsOfMachine() {
  return std::clamp(std::thread::hardware_concurrency(), 1u, kMaxThreads);
}

PackAhead::PackAhead(std::vector<Job> jobs, MakeCompressor makeCompressor, unsigned maxThreads)
    : jobs_(std::move(jobs)), makeCompressor_(std::move(makeCompressor)) {
  uint64_t pieces = 0;
  for (const Job& job : jobs_) pieces += PiecesOf(job);
  const auto count = static_cast<size_t>(std::min<uint64_t>(maxThreads, pieces));
  threads_.reserve(count);
  try {
    while (threads_.size() < count) {
      threads_.emplace_back(&PackAhead::Work, this, makeCompressor_());
    }
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

// Takes a place for what is to be done. Turns are taken in order, so the one that is waited for is
// never kept from beginning by others.
bool PackAhead::Reserve(Turn* turn) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] {
    const bool hasRoom = begunCount_ - takenCount_ < kMaxAheadPieces &&
                         aheadBytes_ + turn->countedBytes <= kMaxAheadBytes;
    return isStopped_ || begunCount_ == takenCount_ || hasRoom;
  });
  if (isStopped_) return false;
  aheadBytes_ += turn->countedBytes;
  turn->number = begunCount_++;
  return true;
}

// `*reader` is empty before the job has begun, and when nothing of it follows.
int PackAhead::ReadBlock(size_t job, std::unique_ptr<BlockReader>* reader, Packer* packer) const {
  int error = 0;
  try {
    if (!*reader) {
      *reader = std::make_unique<BlockReader>();
      error = (*reader)->Open(jobs_[job].path);
    }
    if (error == 0) error = packer->Read(reader->get());
  } catch (...) {
    error = ENOMEM;
  }
  if (error != 0 || packer->HasReadLast()) reader->reset();
  return error;
}

bool PackAhead::Begin(Turn* turn, Packer* packer) {
  const std::lock_guard lock(turns_);
  if (nextJob_ == jobs_.size()) return false;
  const Job& job = jobs_[nextJob_];
  turn->job = nextJob_;
  turn->isWhole = job.sizeBytes <= kSmallBytes;
  turn->countedBytes = turn->isWhole ? job.sizeBytes : kBlockBytes;
  if (!Reserve(turn)) return false;
  turn->error = turn->isWhole ? 0 : ReadBlock(nextJob_, &reader_, packer);
  if (!reader_) ++nextJob_;
  return true;
}

void PackAhead::End(const Turn& turn, Done done) {
  done.job = turn.job;
  const std::lock_guard lock(mutex_);
  // What waits to be taken has become smaller.
  aheadBytes_ -= turn.countedBytes;
  aheadBytes_ += done.piece.bytes.size();
  done_[turn.number % kMaxAheadPieces] = std::move(done);
  changed_.notify_all();
}

void PackAhead::Work(std::unique_ptr<Compressor> compressor) {
  Packer packer(std::move(compressor));
  Turn turn;
  while (Begin(&turn, &packer)) {
    Done done;
    done.piece.error = turn.error;
    try {
      if (turn.isWhole) {
        done = packer.PackWhole(jobs_[turn.job].path);
      } else if (turn.error == 0) {
        done.piece = packer.PackBlock();
      }
    } catch (...) {
      done = {};
      done.piece.error = ENOMEM;
    }
    End(turn, std::move(done));
  }
}

PackAhead::Done PackAhead::TakeNext() {
  std::unique_lock lock(mutex_);
  std::optional<Done>& place = done_[takenCount_ % kMaxAheadPieces];
  changed_.wait(lock, [&] { return place.has_value(); });
  Done done = *std::exchange(place, std::nullopt);
  ++takenCount_;
  aheadBytes_ -= done.piece.bytes.size();
  changed_.notify_all();
  return done;
}

PackAhead::Piece PackAhead::TakeGrown(size_t job) {
  if (!grownPacker_) grownPacker_ = std::make_unique<Packer>(makeCompressor_());
  Piece piece;
  piece.error = ReadBlock(job, &grownReader_, grownPacker_.get());
  return piece.error == 0 ? grownPacker_->PackBlock() : piece;
}

PackAhead::Piece PackAhead::Take(size_t job) {
  if (grownReader_) return TakeGrown(job);
  Done done = TakeNext();
  if (done.job != job) throw std::logic_error("the files are not taken in their order");
  return done.hasGrown ? TakeGrown(job) : std::move(done.piece);
}
