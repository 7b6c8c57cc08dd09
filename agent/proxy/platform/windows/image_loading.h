#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Pixels from the top left on, four bytes each: blue, green, red and opacity, the colours
/// multiplied by it.
struct Picture {
  unsigned width = 0;
  unsigned height = 0;
  /// The size to show it with on a display with 96 dots per inch; it may have more pixels than
  /// that, for the others.
  unsigned shownWidth = 0;
  unsigned shownHeight = 0;
  std::vector<uint8_t> pixels;
};

/// The image of `path` (native, WTF-8) for a dialog: of the formats that the system knows, within
/// the limits of `DialogContent::imagePath`, which are looked at before it is decoded. Throws
/// std::runtime_error with a sentence. From any thread.
Picture LoadPicture(const std::string& path);

/// `picture` with exactly `width` by `height` pixels. Throws std::runtime_error.
Picture Resized(const Picture& picture, unsigned width, unsigned height);
