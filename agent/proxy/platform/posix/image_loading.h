#pragma once

#include <gdkmm/pixbuf.h>

#include <string>

struct LoadedImage {
  Glib::RefPtr<Gdk::Pixbuf> pixels;
  /// How many pixels of it are one logical pixel.
  int scale = 1;
};

/// The image at `path`, made smaller where it is larger than 320 by 240 logical pixels, of
/// `pixelsPerLogical` pixels each. Any thread may call. Throws std::runtime_error with a sentence
/// when there is none or it is larger than `DialogContent` allows.
LoadedImage LoadImage(const std::string& path, int pixelsPerLogical);
