#include "agent/proxy/platform/posix/image_loading.h"

#include <fcntl.h>
#include <gdkmm/pixbufloader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/system_error_text.h"

namespace {

constexpr off_t kMaxFileBytes = 16 * 1024 * 1024;
constexpr int kMaxSidePixels = 8192;
constexpr int64_t kMaxPixels = 32'000'000;
constexpr size_t kPieceBytes = 64 * 1024;
constexpr int kShownWidth = 320;
constexpr int kShownHeight = 240;

class File {
 public:
  // Without waiting for the writer of a pipe.
  explicit File(const std::string& path)
      : file_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)) {
    if (!file_) Fail();
  }

  off_t Size() const {
    struct stat facts {};
    if (::fstat(file_.Get(), &facts) != 0) Fail();
    if (!S_ISREG(facts.st_mode)) throw std::runtime_error("not a file");
    return facts.st_size;
  }

  size_t Read(std::vector<guint8>& buffer) const {
    const ssize_t count =
        Uninterrupted([&] { return ::read(file_.Get(), buffer.data(), buffer.size()); });
    if (count < 0) Fail();
    return static_cast<size_t>(count);
  }

 private:
  [[noreturn]] static void Fail() { throw std::runtime_error(SystemErrorText(errno)); }

  const UniqueFd file_;
};

std::vector<guint8> ReadAll(const std::string& path) {
  const File file(path);
  if (file.Size() > kMaxFileBytes) throw std::runtime_error("larger than 16 MiB");

  std::vector<guint8> bytes;
  std::vector<guint8> piece(kPieceBytes);
  while (const size_t count = file.Read(piece)) {
    bytes.insert(bytes.end(), piece.begin(), piece.begin() + static_cast<ptrdiff_t>(count));
    if (bytes.size() > static_cast<size_t>(kMaxFileBytes))
      throw std::runtime_error("larger than 16 MiB");
  }
  return bytes;
}

// What is decoded, told before the decoding: nothing of an image that is too large.
class Decoding {
 public:
  explicit Decoding(int pixelsPerLogical)
      : pixelsPerLogical_(pixelsPerLogical), loader_(Gdk::PixbufLoader::create()) {
    loader_->signal_size_prepared().connect(
        [this](int width, int height) { OnSize(width, height); });
  }
  ~Decoding() {
    if (isOpen_) Close();
  }
  Decoding(const Decoding&) = delete;
  Decoding& operator=(const Decoding&) = delete;

  void Write(const guint8* bytes, size_t count) {
    try {
      loader_->write(bytes, count);
    } catch (const Glib::Error& error) {
      Fail(error);
    }
  }

  LoadedImage Finish() {
    isOpen_ = false;
    try {
      loader_->close();
    } catch (const Glib::Error& error) {
      Fail(error);
    }
    const auto pixels = loader_->get_pixbuf();
    if (isTooLarge_ || !pixels) throw std::runtime_error(isTooLarge_ ? kTooLarge : "no image");
    return {pixels, scale_};
  }

 private:
  static constexpr const char* kTooLarge = "larger than 8192 pixels or 32 megapixels";

  void OnSize(int width, int height) {
    if (width > kMaxSidePixels || height > kMaxSidePixels || int64_t{width} * height > kMaxPixels) {
      isTooLarge_ = true;
      loader_->set_size(0, 0);  // ends the decoding
      return;
    }
    if (width <= kShownWidth && height <= kShownHeight) return;

    scale_ = pixelsPerLogical_;
    const double factor =
        std::min({1.0, 1.0 * kShownWidth * scale_ / width, 1.0 * kShownHeight * scale_ / height});
    loader_->set_size(std::max(1, static_cast<int>(width * factor)),
                      std::max(1, static_cast<int>(height * factor)));
  }

  [[noreturn]] void Fail(const Glib::Error& error) const {
    throw std::runtime_error(isTooLarge_ ? std::string(kTooLarge) : std::string(error.what()));
  }

  void Close() noexcept {
    try {
      loader_->close();
    } catch (const Glib::Error&) {
      // It is being given up.
    }
  }

  const int pixelsPerLogical_;
  const Glib::RefPtr<Gdk::PixbufLoader> loader_;
  bool isOpen_ = true;
  bool isTooLarge_ = false;
  int scale_ = 1;
};

}  // namespace

LoadedImage LoadImage(const std::string& path, int pixelsPerLogical) {
  const std::vector<guint8> bytes = ReadAll(path);
  // A decoded image may take a hundred megabytes until it is made smaller: one at a time.
  static std::mutex decodingOne;
  const std::lock_guard lock(decodingOne);
  Decoding decoding(pixelsPerLogical);
  for (size_t done = 0; done < bytes.size();) {
    const size_t count = std::min(bytes.size() - done, kPieceBytes);
    decoding.Write(bytes.data() + done, count);
    done += count;
  }
  return decoding.Finish();
}
