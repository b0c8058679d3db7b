// Turns fuzz input bytes into choices. Once the bytes run out every choice reads as zero, false or
// empty, so any input, however short, is a complete program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace VeltaFuzz {

class ByteReader {
public:
    ByteReader(const std::uint8_t* data, std::size_t size) noexcept : data_(data), size_(size) {}

    std::size_t remaining() const noexcept { return size_ - pos_; }
    bool boolean() noexcept { return (byte() & 1) != 0; }

    // A value in [low, high], taken from as few bytes as the range needs.
    template <class T>
    T inRange(T low, T high) noexcept {
        const std::uint64_t span = static_cast<std::uint64_t>(high) - static_cast<std::uint64_t>(low);
        std::uint64_t value = 0;
        for (std::uint64_t left = span; left != 0 && remaining() != 0; left >>= 8)
            value = (value << 8) | byte();
        if (span != UINT64_MAX) value %= span + 1;
        return static_cast<T>(static_cast<std::uint64_t>(low) + value);
    }
    template <class T>
    T integral() noexcept {
        return inRange<T>(T(0), static_cast<T>(~T(0)));
    }

    // Up to `maxLength` bytes; a backslash followed by anything but a backslash ends the string
    // early (the scheme libFuzzer's own data provider uses, so mutations shorten strings easily).
    std::string string(std::size_t maxLength) {
        std::string out;
        while (out.size() < maxLength && remaining() != 0) {
            const char c = static_cast<char>(byte());
            if (c == '\\' && remaining() != 0 && static_cast<char>(byte()) != '\\') break;
            out.push_back(c);
        }
        return out;
    }

private:
    std::uint8_t byte() noexcept { return pos_ < size_ ? data_[pos_++] : 0; }

    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

}  // namespace VeltaFuzz
