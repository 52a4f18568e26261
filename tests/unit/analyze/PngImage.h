// A PNG reader just large enough for the boot chart test: 8-bit RGB or
// RGBA, not interlaced, as rsvg-convert writes them. It inflates the image
// data with zlib and undoes the five row filters.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvane::analyze::testing {

struct Rgb {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;
  bool operator<(const Rgb& other) const {
    return (red << 16 | green << 8 | blue) < (other.red << 16 | other.green << 8 | other.blue);
  }
  bool operator==(const Rgb& other) const = default;
};

class PngImage {
 public:
  /// Decodes @p file (its bytes); throws std::runtime_error for anything
  /// this reader does not take.
  explicit PngImage(const std::string& file) {
    static const std::string kSignature = "\x89PNG\r\n\x1a\n";
    if (file.compare(0, kSignature.size(), kSignature) != 0) {
      throw std::runtime_error("not a PNG file");
    }
    std::string compressed;
    for (std::size_t at = kSignature.size(); at + 12 <= file.size();) {
      const std::uint32_t length = BigEndian(file, at);
      const std::string type = file.substr(at + 4, 4);
      const std::string body = file.substr(at + 8, length);
      if (type == "IHDR") {
        width_ = BigEndian(body, 0);
        height_ = BigEndian(body, 4);
        const int bitDepth = static_cast<std::uint8_t>(body[8]);
        const int colourType = static_cast<std::uint8_t>(body[9]);
        const int interlace = static_cast<std::uint8_t>(body[12]);
        if (bitDepth != 8 || (colourType != 2 && colourType != 6) || interlace != 0) {
          throw std::runtime_error("a PNG layout this reader does not take");
        }
        channels_ = colourType == 6 ? 4 : 3;
      } else if (type == "IDAT") {
        compressed += body;
      }
      at += 12 + length;
    }
    Inflate(compressed);
  }

  std::uint32_t Width() const { return width_; }
  std::uint32_t Height() const { return height_; }

  /// The colour at (@p x, @p y); a transparent pixel reads as white, the
  /// colour of the page it would be shown on.
  Rgb At(std::uint32_t x, std::uint32_t y) const {
    const std::size_t at = (static_cast<std::size_t>(y) * width_ + x) * channels_;
    if (channels_ == 4 && pixels_[at + 3] == 0) {
      return {255, 255, 255};
    }
    return {pixels_[at], pixels_[at + 1], pixels_[at + 2]};
  }

 private:
  static std::uint32_t BigEndian(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t offset = 0; offset < 4; ++offset) {
      value = value << 8 | static_cast<std::uint8_t>(bytes[at + offset]);
    }
    return value;
  }

  void Inflate(const std::string& compressed) {
    const std::size_t stride = static_cast<std::size_t>(width_) * channels_;
    std::vector<std::uint8_t> filtered((stride + 1) * height_);
    uLongf size = filtered.size();
    if (uncompress(filtered.data(), &size, reinterpret_cast<const Bytef*>(compressed.data()),
                   compressed.size()) != Z_OK ||
        size != filtered.size()) {
      throw std::runtime_error("PNG image data that does not inflate");
    }
    pixels_.assign(stride * height_, 0);
    for (std::size_t row = 0; row < height_; ++row) {
      const std::uint8_t filter = filtered[row * (stride + 1)];
      const std::uint8_t* source = &filtered[row * (stride + 1) + 1];
      std::uint8_t* line = &pixels_[row * stride];
      const std::uint8_t* above = row > 0 ? &pixels_[(row - 1) * stride] : nullptr;
      for (std::size_t at = 0; at < stride; ++at) {
        const int left = at >= channels_ ? line[at - channels_] : 0;
        const int up = above != nullptr ? above[at] : 0;
        const int upLeft = above != nullptr && at >= channels_ ? above[at - channels_] : 0;
        int predictor = 0;
        switch (filter) {
          case 0: predictor = 0; break;
          case 1: predictor = left; break;
          case 2: predictor = up; break;
          case 3: predictor = (left + up) / 2; break;
          case 4: predictor = Paeth(left, up, upLeft); break;
          default: throw std::runtime_error("unknown PNG row filter");
        }
        line[at] = static_cast<std::uint8_t>(source[at] + predictor);
      }
    }
  }

  static int Paeth(int left, int up, int upLeft) {
    const int estimate = left + up - upLeft;
    const int toLeft = std::abs(estimate - left);
    const int toUp = std::abs(estimate - up);
    const int toUpLeft = std::abs(estimate - upLeft);
    if (toLeft <= toUp && toLeft <= toUpLeft) {
      return left;
    }
    return toUp <= toUpLeft ? up : upLeft;
  }

  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  std::size_t channels_ = 3;
  std::vector<std::uint8_t> pixels_;
};

}  // namespace orvane::analyze::testing
