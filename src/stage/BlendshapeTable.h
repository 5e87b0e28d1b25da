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
// then the other names in no particular order. The other names are hashed,
// so a sender that invents thousands of names costs linear time, not
// quadratic. Iterators yield
// proxy pairs {first: name, second: value&}: write
//   for (const auto& [name, value] : table)   // read
//   for (auto&& [name, value] : table) value = 0;   // write through
// `name` is a std::string_view valid while the entry exists.
//
// Any thread; no internal locking (a value type like std::unordered_map).

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <unordered_map>

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

  // Hash and equality over any string-like key, so lookups by
  // std::string_view build no string.
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
  };
  using Others = std::unordered_map<std::string, T, NameHash, std::equal_to<>>;

  template <bool Const>
  class Iterator {
   public:
    using Table = std::conditional_t<Const, const BlendshapeTable, BlendshapeTable>;
    using OthersIterator = std::conditional_t<Const, typename Others::const_iterator, typename Others::iterator>;
    using value_type = std::conditional_t<Const, ConstEntry, Entry>;
    using reference = value_type;
    using difference_type = std::ptrdiff_t;
    using iterator_category = std::forward_iterator_tag;
    struct Arrow {
      value_type entry;
      const value_type* operator->() const { return &entry; }
    };

    Iterator() = default;
    // A present slot 0..51, or arkitBlendShapeCount with `other` walking the
    // side table (its end is the table's end).
    Iterator(Table* table, std::size_t slot, OthersIterator other) : table_(table), slot_(slot), other_(other) {}
    operator Iterator<true>() const requires(!Const) { return {table_, slot_, other_}; }

    value_type operator*() const {
      if (slot_ < arkitBlendShapeCount) return {rawValue(static_cast<ARKitBlendShape>(slot_)), table_->slots_[slot_]};
      return {other_->first, other_->second};
    }
    Arrow operator->() const { return {**this}; }
    Iterator& operator++() {
      if (slot_ < arkitBlendShapeCount) {
        slot_ = table_->nextSlot(slot_ + 1);
      } else {
        ++other_;
      }
      return *this;
    }
    Iterator operator++(int) {
      Iterator copy = *this;
      ++*this;
      return copy;
    }
    bool operator==(const Iterator& other) const {
      return slot_ == other.slot_ && (slot_ < arkitBlendShapeCount || other_ == other.other_);
    }

   private:
    friend class BlendshapeTable;
    Table* table_ = nullptr;
    std::size_t slot_ = arkitBlendShapeCount;
    OthersIterator other_{};
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
    const auto it = others_.find(name);
    return it == others_.end() ? nullptr : &it->second;
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
    if (const auto it = others_.find(name); it != others_.end()) return it->second;
    return others_.emplace(std::string(name), T{}).first->second;
  }
  void insert_or_assign(std::string_view name, T value) { (*this)[name] = std::move(value); }
  // 1 when the name was there.
  std::size_t erase(std::string_view name) {
    if (const auto shape = fromRawValue<ARKitBlendShape>(name)) return erase(*shape);
    const auto it = others_.find(name);
    if (it == others_.end()) return 0;
    others_.erase(it);
    return 1;
  }
  const_iterator find(std::string_view name) const {
    if (const auto shape = fromRawValue<ARKitBlendShape>(name)) return has(*shape) ? slotIterator(index(*shape)) : end();
    return {this, arkitBlendShapeCount, others_.find(name)};
  }
  iterator find(std::string_view name) {
    if (const auto shape = fromRawValue<ARKitBlendShape>(name)) return has(*shape) ? slotIterator(index(*shape)) : end();
    return {this, arkitBlendShapeCount, others_.find(name)};
  }

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
  // The names outside the vocabulary.
  const Others& others() const { return others_; }
  Others& others() { return others_; }

  // --- whole table -----------------------------------------------------
  std::size_t size() const { return static_cast<std::size_t>(std::popcount(present_)) + others_.size(); }
  bool empty() const { return present_ == 0 && others_.empty(); }
  void clear() {
    present_ = 0;
    others_.clear();
  }
  iterator begin() { return slotIterator(nextSlot(0)); }
  iterator end() { return {this, arkitBlendShapeCount, others_.end()}; }
  const_iterator begin() const { return slotIterator(nextSlot(0)); }
  const_iterator end() const { return {this, arkitBlendShapeCount, others_.end()}; }

  // Same names with equal values.
  bool operator==(const BlendshapeTable& other) const {
    if (present_ != other.present_) return false;
    for (std::uint64_t bits = present_; bits; bits &= bits - 1) {
      const auto i = static_cast<std::size_t>(std::countr_zero(bits));
      if (!(slots_[i] == other.slots_[i])) return false;
    }
    return others_ == other.others_;
  }

 private:
  static constexpr std::uint64_t bit(std::size_t i) { return std::uint64_t{1} << i; }
  // The first present slot at or after i; arkitBlendShapeCount when none.
  std::size_t nextSlot(std::size_t i) const {
    if (i >= arkitBlendShapeCount) return arkitBlendShapeCount;
    const std::uint64_t rest = present_ & ~(bit(i) - 1);
    return rest ? static_cast<std::size_t>(std::countr_zero(rest)) : arkitBlendShapeCount;
  }
  // An iterator at slot i (present), or at the side table's start for 52.
  iterator slotIterator(std::size_t i) { return {this, i, others_.begin()}; }
  const_iterator slotIterator(std::size_t i) const { return {this, i, others_.begin()}; }

  std::array<T, arkitBlendShapeCount> slots_{};
  std::uint64_t present_ = 0;
  Others others_;
};

}  // namespace velmora
