#pragma once
// A map from blendshape name to T that stores the 52 vocabulary names in
// fixed slots (indexed by ARKitBlendShape, with a presence mask) and any
// other name a sender invents in a small side table. It behaves as a map
// from name to value: any subset of names, any name, lookup, insert, erase
// and iteration mean what they mean for std::unordered_map. What changes is
// the cost: a vocabulary name is never allocated, its lookup is one hash of
// the characters (no string is built), and copying a full frame of 52
// values copies a few hundred bytes.
//
// Iteration visits the present vocabulary names in case order (alphabetical),
// then the other names in the order they were first inserted. Iterators yield
// proxy pairs {first: name, second: value&}: write
//   for (const auto& [name, value] : table)   // read
//   for (auto&& [name, value] : table) value = 0;   // write through
// `name` is a std::string_view valid while the entry exists.
//
// Any thread; no internal locking (a value type like std::unordered_map).

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "stage/ARKitBlendShape.h"

namespace velmora {

template <class T>
class BlendshapeTable {
 public:
  struct Entry {
    std::string_view first;
    T& second;
  };
  struct ConstEntry {
    std::string_view first;
    const T& second;
  };

  template <bool Const>
  class Iterator {
   public:
    using Table = std::conditional_t<Const, const BlendshapeTable, BlendshapeTable>;
    using value_type = std::conditional_t<Const, ConstEntry, Entry>;
    using reference = value_type;
    using difference_type = std::ptrdiff_t;
    using iterator_category = std::forward_iterator_tag;
    struct Arrow {
      value_type entry;
      const value_type* operator->() const { return &entry; }
    };

    Iterator() = default;
    // Position: a slot index 0..51 (present) or arkitBlendShapeCount + k for
    // the side table's entry k; end is arkitBlendShapeCount + others' size.
    Iterator(Table* table, std::size_t position) : table_(table), position_(position) {}
    operator Iterator<true>() const requires(!Const) { return {table_, position_}; }

    value_type operator*() const {
      if (position_ < arkitBlendShapeCount) {
        return {rawValue(static_cast<ARKitBlendShape>(position_)), table_->slots_[position_]};
      }
      auto& other = table_->others_[position_ - arkitBlendShapeCount];
      return {other.first, other.second};
    }
    Arrow operator->() const { return {**this}; }
    Iterator& operator++() {
      position_ = table_->nextPosition(position_ + 1);
      return *this;
    }
    Iterator operator++(int) {
      Iterator copy = *this;
      ++*this;
      return copy;
    }
    bool operator==(const Iterator& other) const { return position_ == other.position_; }

   private:
    friend class BlendshapeTable;
    Table* table_ = nullptr;
    std::size_t position_ = 0;
  };
  using iterator = Iterator<false>;
  using const_iterator = Iterator<true>;
  using key_type = std::string;
  using mapped_type = T;

  BlendshapeTable() = default;
  BlendshapeTable(std::initializer_list<std::pair<std::string_view, T>> entries) {
    for (const auto& [name, value] : entries) insert_or_assign(name, value);
  }

  // --- by name ---------------------------------------------------------
  const T* get(std::string_view name) const {
    if (const auto shape = fromRawValue<ARKitBlendShape>(name)) return get(*shape);
    for (const auto& other : others_)
      if (other.first == name) return &other.second;
    return nullptr;
  }
  T* get(std::string_view name) { return const_cast<T*>(std::as_const(*this).get(name)); }
  bool contains(std::string_view name) const { return get(name) != nullptr; }
  std::size_t count(std::string_view name) const { return contains(name) ? 1 : 0; }
  const T& at(std::string_view name) const {
    if (const T* value = get(name)) return *value;
    throw std::out_of_range("no blendshape named " + std::string(name));
  }
  T& at(std::string_view name) { return const_cast<T&>(std::as_const(*this).at(name)); }
  // The value of `name`, inserted as T{} when absent.
  T& operator[](std::string_view name) {
    if (const auto shape = fromRawValue<ARKitBlendShape>(name)) {
      const std::size_t i = index(*shape);
      if (!(present_ & bit(i))) {
        present_ |= bit(i);
        slots_[i] = T{};
      }
      return slots_[i];
    }
    for (auto& other : others_)
      if (other.first == name) return other.second;
    return others_.emplace_back(std::string(name), T{}).second;
  }
  void insert_or_assign(std::string_view name, T value) { (*this)[name] = std::move(value); }
  // 1 when the name was there.
  std::size_t erase(std::string_view name) {
    if (const auto shape = fromRawValue<ARKitBlendShape>(name)) return erase(*shape);
    const auto it = std::find_if(others_.begin(), others_.end(), [&](const auto& o) { return o.first == name; });
    if (it == others_.end()) return 0;
    others_.erase(it);  // keeps the others' insertion order
    return 1;
  }
  const_iterator find(std::string_view name) const { return {this, positionOf(name)}; }
  iterator find(std::string_view name) { return {this, positionOf(name)}; }

  // --- by vocabulary slot ----------------------------------------------
  bool has(ARKitBlendShape shape) const { return present_ & bit(index(shape)); }
  const T* get(ARKitBlendShape shape) const { return has(shape) ? &slots_[index(shape)] : nullptr; }
  T* get(ARKitBlendShape shape) { return has(shape) ? &slots_[index(shape)] : nullptr; }
  void set(ARKitBlendShape shape, T value) {
    present_ |= bit(index(shape));
    slots_[index(shape)] = std::move(value);
  }
  std::size_t erase(ARKitBlendShape shape) {
    const bool was = has(shape);
    present_ &= ~bit(index(shape));
    return was ? 1 : 0;
  }
  // Bit i set: the vocabulary name of case index i is present.
  std::uint64_t presentSlots() const { return present_; }
  // The value in slot i, meaningful only while bit i of presentSlots() is set.
  const T& slot(std::size_t i) const { return slots_[i]; }
  // Calls f(shape, value&) for every present vocabulary name, in case order.
  template <class F>
  void forEachSlot(F&& f) {
    for (std::uint64_t bits = present_; bits; bits &= bits - 1) {
      const auto i = static_cast<std::size_t>(std::countr_zero(bits));
      f(static_cast<ARKitBlendShape>(i), slots_[i]);
    }
  }
  template <class F>
  void forEachSlot(F&& f) const {
    for (std::uint64_t bits = present_; bits; bits &= bits - 1) {
      const auto i = static_cast<std::size_t>(std::countr_zero(bits));
      f(static_cast<ARKitBlendShape>(i), slots_[i]);
    }
  }
  // The names outside the vocabulary, in insertion order.
  std::span<const std::pair<std::string, T>> others() const { return others_; }
  std::span<std::pair<std::string, T>> others() { return others_; }

  // --- whole table -----------------------------------------------------
  std::size_t size() const { return static_cast<std::size_t>(std::popcount(present_)) + others_.size(); }
  bool empty() const { return present_ == 0 && others_.empty(); }
  void clear() {
    present_ = 0;
    others_.clear();
  }
  iterator begin() { return {this, nextPosition(0)}; }
  iterator end() { return {this, endPosition()}; }
  const_iterator begin() const { return {this, nextPosition(0)}; }
  const_iterator end() const { return {this, endPosition()}; }

  // Same names with equal values; the side table's order does not matter.
  bool operator==(const BlendshapeTable& other) const {
    if (present_ != other.present_ || others_.size() != other.others_.size()) return false;
    for (std::uint64_t bits = present_; bits; bits &= bits - 1) {
      const auto i = static_cast<std::size_t>(std::countr_zero(bits));
      if (!(slots_[i] == other.slots_[i])) return false;
    }
    for (const auto& entry : others_) {
      // Not a structured binding: clang before 16 cannot capture one.
      const std::string& name = entry.first;
      const auto it = std::find_if(other.others_.begin(), other.others_.end(),
                                   [&](const auto& o) { return o.first == name; });
      if (it == other.others_.end() || !(it->second == entry.second)) return false;
    }
    return true;
  }

 private:
  static constexpr std::uint64_t bit(std::size_t i) { return std::uint64_t{1} << i; }
  std::size_t endPosition() const { return arkitBlendShapeCount + others_.size(); }
  // The first valid position at or after p.
  std::size_t nextPosition(std::size_t p) const {
    if (p < arkitBlendShapeCount) {
      const std::uint64_t rest = present_ & ~(bit(p) - 1);
      if (rest) return static_cast<std::size_t>(std::countr_zero(rest));
      return arkitBlendShapeCount;
    }
    return std::min(p, endPosition());
  }
  std::size_t positionOf(std::string_view name) const {
    if (const auto shape = fromRawValue<ARKitBlendShape>(name)) {
      return has(*shape) ? index(*shape) : endPosition();
    }
    for (std::size_t k = 0; k < others_.size(); ++k)
      if (others_[k].first == name) return arkitBlendShapeCount + k;
    return endPosition();
  }

  std::array<T, arkitBlendShapeCount> slots_{};
  std::uint64_t present_ = 0;
  std::vector<std::pair<std::string, T>> others_;
};

}  // namespace velmora
