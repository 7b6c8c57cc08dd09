#include "agent/proxy/platform/windows/image_loading.h"

#include <windows.h>

#include <initguid.h>

// After initguid.h, which makes the identifiers below definitions.
#include <wincodec.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>

#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/system_error_text.h"
#include "agent/proxy/platform/windows/handles.h"
#include "libZel/string.h"

namespace {

constexpr int64_t kMaxFileBytes = 16 * 1024 * 1024;
constexpr unsigned kMaxSide = 8192;
constexpr uint64_t kMaxPixels = 32'000'000;
constexpr unsigned kMaxShownWidth = 320;
constexpr unsigned kMaxShownHeight = 240;
// Displays have up to three times 96 dots per inch, as a rule.
constexpr unsigned kSpareResolution = 3;

void Check(HRESULT result, const char* what) {
  if (FAILED(result)) throw std::runtime_error(what);
}

[[noreturn]] void FailWithLastError() {
  throw std::runtime_error(SystemErrorText(GetLastError()));
}

// Of the file as it was when it was opened, so that nothing changes between check and decoding.
std::vector<uint8_t> ReadSmallFile(const std::string& path) {
  const ZelString name(path);
  // Whoever answers at a name that is no file must not act in the user's name.
  const UniqueHandle file(CreateFileW(
      reinterpret_cast<const wchar_t*>(name.GetTCHAR()), GENERIC_READ,
      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
      FILE_ATTRIBUTE_NORMAL | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
  if (!file) FailWithLastError();
  if (GetFileType(file.Get()) != FILE_TYPE_DISK) throw std::runtime_error("it is no file");

  LARGE_INTEGER size{};
  if (!GetFileSizeEx(file.Get(), &size)) FailWithLastError();
  if (size.QuadPart > kMaxFileBytes) throw std::runtime_error("the file is too large");
  std::vector<uint8_t> bytes(static_cast<size_t>(size.QuadPart));
  DWORD count = 0;
  if (!ReadFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr)) {
    FailWithLastError();
  }
  bytes.resize(count);
  return bytes;
}

struct Size {
  unsigned width;
  unsigned height;
};

// `size` made smaller, in proportion, where it exceeds `most`.
Size Within(Size size, Size most) {
  const double ratio = std::min({1.0, static_cast<double>(most.width) / size.width,
                                 static_cast<double>(most.height) / size.height});
  const auto scaled = [&](unsigned side) {
    return std::max(1U, static_cast<unsigned>(std::lround(side * ratio)));
  };
  return {scaled(size.width), scaled(size.height)};
}

void MakeFactory(ComPointer<IWICImagingFactory>& factory) {
  Check(CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER,
                         IID_IWICImagingFactory, factory.Receive()),
        "the system's image decoders are not available");
}

std::vector<uint8_t> ScaledPixels(IWICImagingFactory* factory, IWICBitmapSource* source,
                                  Size size) {
  ComPointer<IWICBitmapScaler> scaler;
  Check(factory->CreateBitmapScaler(scaler.Put()), "the image cannot be scaled");
  Check(scaler->Initialize(source, size.width, size.height, WICBitmapInterpolationModeFant),
        "the image cannot be scaled");
  std::vector<uint8_t> pixels(size_t{4} * size.width * size.height);
  Check(
      scaler->CopyPixels(nullptr, 4 * size.width, static_cast<UINT>(pixels.size()), pixels.data()),
      "the image is damaged");
  return pixels;
}

}  // namespace

Picture LoadPicture(const std::string& path) {
  std::vector<uint8_t> bytes = ReadSmallFile(path);
  const ComOnThread com(COINIT_MULTITHREADED);
  ComPointer<IWICImagingFactory> factory;
  MakeFactory(factory);
  ComPointer<IWICStream> stream;
  Check(factory->CreateStream(stream.Put()), "the image cannot be read");
  Check(stream->InitializeFromMemory(bytes.data(), static_cast<DWORD>(bytes.size())),
        "the image cannot be read");

  ComPointer<IWICBitmapDecoder> decoder;
  Check(factory->CreateDecoderFromStream(stream.Get(), nullptr, WICDecodeMetadataCacheOnDemand,
                                         decoder.Put()),
        "it is no image that this system can show");
  ComPointer<IWICBitmapFrameDecode> frame;
  Check(decoder->GetFrame(0, frame.Put()), "the image is damaged");
  Size size{};
  Check(frame->GetSize(&size.width, &size.height), "the image is damaged");
  if (size.width == 0 || size.height == 0) throw std::runtime_error("the image is empty");
  const bool isHuge = uint64_t{size.width} * size.height > kMaxPixels;
  if (isHuge || size.width > kMaxSide || size.height > kMaxSide) {
    throw std::runtime_error("the image has too many pixels");
  }

  ComPointer<IWICFormatConverter> converter;
  Check(factory->CreateFormatConverter(converter.Put()), "the image cannot be converted");
  Check(converter->Initialize(frame.Get(), GUID_WICPixelFormat32bppPBGRA, WICBitmapDitherTypeNone,
                              nullptr, 0, WICBitmapPaletteTypeMedianCut),
        "the image cannot be converted");
  const Size shown = Within(size, {kMaxShownWidth, kMaxShownHeight});
  const Size kept = Within(size, {shown.width * kSpareResolution, shown.height * kSpareResolution});
  return {kept.width, kept.height, shown.width, shown.height,
          ScaledPixels(factory.Get(), converter.Get(), kept)};
}

Picture Resized(const Picture& picture, unsigned width, unsigned height) {
  const ComOnThread com(COINIT_MULTITHREADED);
  ComPointer<IWICImagingFactory> factory;
  MakeFactory(factory);
  ComPointer<IWICBitmap> bitmap;
  // The system only reads from it.
  auto* const pixels = const_cast<uint8_t*>(picture.pixels.data());
  Check(factory->CreateBitmapFromMemory(
            picture.width, picture.height, GUID_WICPixelFormat32bppPBGRA, 4 * picture.width,
            static_cast<UINT>(picture.pixels.size()), pixels, bitmap.Put()),
        "the image cannot be scaled");
  return {width, height, picture.shownWidth, picture.shownHeight,
          ScaledPixels(factory.Get(), bitmap.Get(), {width, height})};
}
