#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace tessard {

/// Lists under names, the names in the order in which they were first used. There are only a handful of
/// names; the lists may be long.
template <class Item>
class NamedLists {
 public:
  using List = std::vector<Item>;

  bool empty() const { return lists_.empty(); }

  /// Null for a name without a list. Valid until another name is added.
  const List* find(std::string_view name) const {
    const auto found =
        std::find_if(lists_.begin(), lists_.end(), [&](const auto& l) { return l.first == name; });
    return found == lists_.end() ? nullptr : &found->second;
  }
  List* find(std::string_view name) { return const_cast<List*>(std::as_const(*this).find(name)); }

  /// The list of a name, made when there is none.
  List& listFor(std::string_view name) {
    if (List* list = find(name)) return *list;
    return lists_.emplace_back(std::string(name), List()).second;
  }

  auto begin() const { return lists_.begin(); }
  auto end() const { return lists_.end(); }

 private:
  std::vector<std::pair<std::string, List>> lists_;
};

/// File paths under component names; within a name each path is there once.
class ComponentPaths {
 public:
  bool empty() const { return paths_.empty(); }
  const std::vector<std::string>* find(std::string_view name) const { return paths_.find(name); }
  auto begin() const { return paths_.begin(); }
  auto end() const { return paths_.end(); }

  /// False when the path was there already.
  bool add(std::string_view name, std::string_view path) {
    if (!known_.insert(key(name, path)).second) return false;
    paths_.listFor(name).emplace_back(path);
    return true;
  }

  /// Takes every path of a name that the condition holds for; gives their number.
  template <class Condition>
  std::size_t removeIf(std::string_view name, Condition condition) {
    std::vector<std::string>* paths = paths_.find(name);
    if (!paths) return 0;
    return std::erase_if(*paths, [&](const std::string& path) {
      const bool taken = condition(path);
      if (taken) known_.erase(key(name, path));
      return taken;
    });
  }

 private:
  static std::string key(std::string_view name, std::string_view path) {
    return std::string(name) + '\n' + std::string(path);
  }

  NamedLists<std::string> paths_;
  std::unordered_set<std::string> known_;
};

}  // namespace tessard
