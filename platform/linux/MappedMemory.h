#pragma once

#include <cstddef>
#include <span>

namespace quillsift {

// Owns one mapping of whole pages and unmaps it. Move-only.
class MappedMemory {
 public:
  MappedMemory() = default;
  ~MappedMemory();
  MappedMemory(MappedMemory&& other) noexcept;
  MappedMemory& operator=(MappedMemory&& other) noexcept;

  // Fresh memory to write to, at least `length` bytes, not 0. A page takes memory when it is first
  // touched. Throws std::bad_alloc.
  static MappedMemory anonymous(std::size_t length);
  // The first `length` bytes (not 0) of a file, to read only; the descriptor may be closed
  // afterwards. Nobody may be able to shorten the file. Throws std::bad_alloc.
  static MappedMemory ofFile(int descriptor, std::size_t length);

  // Grows or shrinks an anonymous mapping to at least `length` bytes, not 0; it may move. What is
  // there already is kept and not copied. Throws std::bad_alloc and is unchanged then.
  void resize(std::size_t length);

  std::byte* data() const { return data_; }
  // A multiple of the page size; 0 for no mapping.
  std::size_t length() const { return length_; }

 private:
  MappedMemory(void* address, std::size_t length);

  std::byte* data_ = nullptr;
  std::size_t length_ = 0;
};

}  // namespace quillsift
