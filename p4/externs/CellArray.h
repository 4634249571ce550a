// Arrays of the size that a program states, in memory that costs nothing until it is used.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

namespace P4 {

// `Cell` starts as zero bytes and needs no destructor.
template <typename Cell>
class CellArray {
 public:
  // Throws std::bad_alloc.
  explicit CellArray(size_t count) : count_(count), cells_(made(count)) {}

  size_t size() const { return count_; }
  Cell& operator[](size_t index) { return cells_.get()[index]; }
  const Cell& operator[](size_t index) const { return cells_.get()[index]; }

 private:
  struct Free {
    void operator()(Cell* cells) const { std::free(static_cast<void*>(cells)); }
  };
  static Cell* made(size_t count) {
    if (count == 0) return nullptr;
    void* cells = std::calloc(count, sizeof(Cell));
    if (!cells) throw std::bad_alloc();
    return static_cast<Cell*>(cells);
  }

  size_t count_;
  std::unique_ptr<Cell, Free> cells_;
};

}  // namespace P4
