// Arrays of plain elements inside cache records: up to 2,048 of them, indexed by a checked index.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace P4Runtime {

// Throws std::range_error for a value above the maximum.
class CachePodArrayIndex {
 public:
  static constexpr uint32_t min = 0;
  static constexpr uint32_t max = 2047;

  CachePodArrayIndex(uint32_t value = 0)
      : value_(checked(value)) {}  // NOLINT: an index is a number

  uint32_t value() const { return value_; }
  CachePodArrayIndex& operator+=(uint32_t n) {
    value_ = n > max ? checked(n) : checked(value_ + n);
    return *this;
  }
  friend CachePodArrayIndex operator+(CachePodArrayIndex a, uint32_t n) { return a += n; }
  friend auto operator<=>(const CachePodArrayIndex&, const CachePodArrayIndex&) = default;

 private:
  static uint32_t checked(uint32_t value) {
    if (value > max) {
      throw std::range_error(
          "CachePodArrayIndex::value < CachePodArrayIndex::min or > CachePodArrayIndex::max not "
          "allowed");
    }
    return value;
  }
  uint32_t value_;
};

template <typename T>
class CachePodArray {
 public:
  static constexpr uint32_t capacity = CachePodArrayIndex::max + 1;

  uint32_t size() const { return static_cast<uint32_t>(elements_.size()); }
  const T* data() const { return elements_.data(); }
  T operator[](size_t i) const { return elements_[i]; }
  auto begin() const { return elements_.begin(); }
  auto end() const { return elements_.end(); }

  // Elements between the former end and `index` become zero.
  void elementIs(CachePodArrayIndex index, T value) {
    if (index.value() >= elements_.size()) elements_.resize(index.value() + 1);
    elements_[index.value()] = value;
  }
  void elementDel(CachePodArrayIndex index) {
    if (index.value() < elements_.size()) elements_.erase(elements_.begin() + index.value());
  }
  void elementDelAll() { elements_.clear(); }
  // Throws std::range_error when there are more than fit.
  void elementsAre(std::span<const T> elements) {
    if (elements.size() > capacity) {
      CachePodArrayIndex tooLarge(static_cast<uint32_t>(elements.size() - 1));
    }
    elements_.assign(elements.begin(), elements.end());
  }

  friend bool operator==(const CachePodArray&, const CachePodArray&) = default;

 private:
  std::vector<T> elements_;
};

}  // namespace P4Runtime
