#pragma once
// The object type behind ZRVJSON: members stay in the order they were first inserted (a document written back
// keeps its order), and a member is found by name in constant time, so reading or looking up an object of tens
// of thousands of members (a patch manifest) costs time linear in its members, not quadratic.
//
// It offers what nlohmann::ordered_map offers, with the same outcomes: inserting a name that is present keeps
// the member where it is (emplace and insert leave its value, operator[] hands it out for assignment), erasing
// keeps the order of the rest. Objects of a few members are searched in order; larger ones keep an
// open-addressing table of positions beside the members. The table holds positions only, so copies and moves
// stay valid as they are. Lookups never change the table: a shared object can be read from many threads.
//
// The members are stored as pairs of a name and a value that can both be moved, so growing never copies a
// value; a name must not be changed through an iterator (nothing in nlohmann::basic_json does).

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

template <class Key, class T, class IgnoredLess = std::less<Key>,
          class Allocator = std::allocator<std::pair<const Key, T>>>
class ZRVOrderedMap {
 public:
  using key_type = Key;
  using mapped_type = T;
  using value_type = std::pair<Key, T>;
  using key_compare = std::equal_to<>;  // transparent: members are found by any text that converts to a view
  using allocator_type = typename std::allocator_traits<Allocator>::template rebind_alloc<value_type>;
  using Container = std::vector<value_type, allocator_type>;
  using iterator = typename Container::iterator;
  using const_iterator = typename Container::const_iterator;
  using reverse_iterator = typename Container::reverse_iterator;
  using const_reverse_iterator = typename Container::const_reverse_iterator;
  using size_type = typename Container::size_type;
  using difference_type = typename Container::difference_type;
  using reference = value_type&;
  using const_reference = const value_type&;

  /// Objects up to this many members have no table: scanning them is as fast and costs no memory.
  static constexpr size_type kUnindexedSize = 8;

  ZRVOrderedMap() = default;
  explicit ZRVOrderedMap(const Allocator& allocator) : members_(allocator_type(allocator)) {}
  template <class InputIt>
  ZRVOrderedMap(InputIt first, InputIt last, const Allocator& allocator = Allocator())
      : members_(allocator_type(allocator)) {
    insert(first, last);
  }
  ZRVOrderedMap(std::initializer_list<value_type> init, const Allocator& allocator = Allocator())
      : ZRVOrderedMap(init.begin(), init.end(), allocator) {}

  iterator begin() noexcept { return members_.begin(); }
  iterator end() noexcept { return members_.end(); }
  const_iterator begin() const noexcept { return members_.begin(); }
  const_iterator end() const noexcept { return members_.end(); }
  const_iterator cbegin() const noexcept { return members_.cbegin(); }
  const_iterator cend() const noexcept { return members_.cend(); }
  reverse_iterator rbegin() noexcept { return members_.rbegin(); }
  reverse_iterator rend() noexcept { return members_.rend(); }
  const_reverse_iterator rbegin() const noexcept { return members_.rbegin(); }
  const_reverse_iterator rend() const noexcept { return members_.rend(); }

  size_type size() const noexcept { return members_.size(); }
  bool empty() const noexcept { return members_.empty(); }
  size_type max_size() const noexcept { return members_.max_size(); }
  void reserve(size_type count) { members_.reserve(count); }
  void clear() noexcept {
    members_.clear();
    slots_.clear();
  }

  // Lookups. Every one takes the member's name as the stored key or as anything that views as text.

  iterator find(std::string_view key) { return begin() + static_cast<difference_type>(position(key)); }
  const_iterator find(std::string_view key) const { return begin() + static_cast<difference_type>(position(key)); }
  size_type count(std::string_view key) const { return position(key) == size() ? 0 : 1; }

  T& at(std::string_view key) {
    auto found = find(key);
    if (found == end()) throw std::out_of_range("key not found");
    return found->second;
  }
  const T& at(std::string_view key) const {
    auto found = find(key);
    if (found == end()) throw std::out_of_range("key not found");
    return found->second;
  }

  // Insertion. A name already present keeps its place and its value.

  template <class KeyType>
  std::pair<iterator, bool> emplace(KeyType&& key, T&& value) {
    const size_type present = position(key);
    if (present != size()) return {begin() + static_cast<difference_type>(present), false};
    members_.emplace_back(std::forward<KeyType>(key), std::move(value));
    indexLast();
    return {std::prev(end()), true};
  }

  template <class KeyType>
  T& operator[](KeyType&& key) {
    return emplace(std::forward<KeyType>(key), T{}).first->second;
  }
  const T& operator[](std::string_view key) const { return at(key); }

  std::pair<iterator, bool> insert(value_type&& member) {
    return emplace(std::move(member.first), std::move(member.second));
  }
  std::pair<iterator, bool> insert(const value_type& member) {
    const size_type present = position(member.first);
    if (present != size()) return {begin() + static_cast<difference_type>(present), false};
    members_.push_back(member);
    indexLast();
    return {std::prev(end()), true};
  }
  template <class InputIt,
            class = std::enable_if_t<std::is_convertible_v<
                typename std::iterator_traits<InputIt>::iterator_category, std::input_iterator_tag>>>
  void insert(InputIt first, InputIt last) {
    for (; first != last; ++first) {
      const auto& member = *first;
      if (position(member.first) != size()) continue;
      members_.emplace_back(member.first, member.second);
      indexLast();
    }
  }

  // Erasure keeps the order of the members that stay.

  size_type erase(std::string_view key) {
    const size_type present = position(key);
    if (present == size()) return 0;
    erase(begin() + static_cast<difference_type>(present));
    return 1;
  }
  iterator erase(iterator at) { return erase(at, std::next(at)); }
  iterator erase(iterator first, iterator last) {
    const difference_type offset = first - begin();
    members_.erase(first, last);
    rebuildIndex();  // every member after the gap moved down
    return begin() + offset;
  }

  friend bool operator==(const ZRVOrderedMap& left, const ZRVOrderedMap& right) {
    return left.members_ == right.members_;
  }
  friend auto operator<=>(const ZRVOrderedMap& left, const ZRVOrderedMap& right) {
    return left.members_ <=> right.members_;
  }

 private:
  static constexpr std::size_t kEmpty = 0;  // slots hold a member's position + 1

  static std::size_t hashOf(std::string_view key) noexcept { return std::hash<std::string_view>{}(key); }

  // The member's position, or size() when there is none.
  size_type position(std::string_view key) const noexcept {
    if (slots_.empty()) {
      for (size_type i = 0; i < members_.size(); ++i) {
        if (std::string_view(members_[i].first) == key) return i;
      }
      return members_.size();
    }
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t slot = hashOf(key) & mask;; slot = (slot + 1) & mask) {
      if (slots_[slot] == kEmpty) return members_.size();
      const size_type candidate = slots_[slot] - 1;
      if (std::string_view(members_[candidate].first) == key) return candidate;
    }
  }

  void place(size_type member) noexcept {
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = hashOf(members_[member].first) & mask;
    while (slots_[slot] != kEmpty) slot = (slot + 1) & mask;
    slots_[slot] = member + 1;
  }

  // Called after a member was appended. The table stays at most half full.
  void indexLast() {
    if (members_.size() <= kUnindexedSize) return;
    if (slots_.empty() || members_.size() * 2 > slots_.size()) {
      rebuildIndex();
    } else {
      place(members_.size() - 1);
    }
  }

  void rebuildIndex() {
    slots_.clear();
    if (members_.size() <= kUnindexedSize) {
      slots_.shrink_to_fit();
      return;
    }
    std::size_t capacity = 16;
    while (capacity < members_.size() * 4) capacity *= 2;  // half full at most until it doubles again
    slots_.assign(capacity, kEmpty);
    for (size_type i = 0; i < members_.size(); ++i) place(i);
  }

  Container members_;
  std::vector<std::size_t> slots_;  // empty for small objects
};
