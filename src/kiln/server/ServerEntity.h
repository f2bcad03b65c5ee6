// An entity that the server hands to its stages, with the name by which graph and reports know it.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/platform/Collection.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/StateDigest.h"

namespace KilnEmServer {

/// Names of collections with their sizes.
using NamedSizes = std::vector<std::pair<std::string, std::size_t>>;

/// What of an entity's content the server looks at.
struct EntityContent {
  bool emptyAtRest = false;  ///< empty if nothing is requested and every answer is in
  bool described = false;    ///< a part of the server's state
};

/// The name of the member of a collection of collections.
template <class Key>
std::string memberName(std::string_view holder, const Key& key) {
  return fmt::format("{}[ {} ]", holder, key);
}

namespace detail {

template <class T>
struct ReferredTo {
  static constexpr bool kIs = false;
};
template <class T>
struct ReferredTo<Ref<T>> {
  static constexpr bool kIs = true;
  using type = T;
};

/// Whether an entity's collection holds references to other entities.
template <class T>
constexpr bool kIsHolder = ReferredTo<typename T::CollectionAttr::Value>::kIs;

/// Whether the server can look at an entity's collection, or at those of its members: they are its own.
template <class T>
constexpr bool isVisible() {
  if constexpr (!requires { typename T::CollectionAttr; }) {
    return false;
  } else if constexpr (kIsHolder<T>) {
    return isVisible<typename ReferredTo<typename T::CollectionAttr::Value>::type>();
  } else {
    return true;
  }
}

/// The number of keys in an entity's collection, or in those of its members.
template <class T>
std::size_t sizeOf(const T& entity) {
  const auto& collection = T::CollectionAttr::of(entity);
  if constexpr (kIsHolder<T>) {
    std::size_t size = 0;
    KilnPlatform::forEachIn(collection,
                            [&](const auto& /*key*/, const auto& member) { size += sizeOf(*member); });
    return size;
  } else {
    return collection.size();
  }
}

/// Describes the collections of an entity, each as a part of its own. Of answers about one logical key only
/// the order counts, and of a resolver's request not its epoch.
void noteCollections(StateDigest& digest, const std::string& name, const EmSwTableStatus& emSwTableStatus);
void noteCollections(StateDigest& digest, const std::string& name, const ResolverComposerConfig& requests);
/// Any other entity: its content, the members of a holder in the order of their keys.
template <class T>
void noteCollections(StateDigest& digest, const std::string& name, const T& entity) {
  const auto& collection = T::CollectionAttr::of(entity);
  if constexpr (kIsHolder<T>) {
    KilnPlatform::forEachEnumValue<typename T::CollectionAttr::Key>([&](auto key) {
      const auto* member = collection.find(key);
      if (member != nullptr) noteCollections(digest, memberName(name, key), std::as_const(**member));
    });
  } else {
    digest.addPart(name, collection);
  }
}
}  // namespace detail

/// An entity by its name.
class ServerEntity {
 public:
  ServerEntity(std::vector<ServerEntity*>& all, std::string_view name, EntityContent content)
      : name_(name), content_(content) {
    all.push_back(this);
  }
  virtual ~ServerEntity() = default;
  ServerEntity(const ServerEntity&) = delete;
  ServerEntity& operator=(const ServerEntity&) = delete;

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] const EntityContent& content() const { return content_; }
  /// Whether it was created or handed in.
  [[nodiscard]] virtual bool exists() const = 0;
  /// Creates it, unless it exists or comes from outside.
  virtual void create() = 0;
  /// Adds its collections, those of a holder by member.
  virtual void addSizes(NamedSizes& sizes) const = 0;
  /// Describes its collections.
  virtual void noteState(StateDigest& digest) const = 0;

 private:
  std::string name_;
  EntityContent content_;
};

/// Holds the reference to an entity of type T, which it creates or is handed.
template <class T>
class ServerEntityOf final : public ServerEntity {
 public:
  using Entity = T;
  using ServerEntity::ServerEntity;

  [[nodiscard]] const Ref<T>& operator()() const { return entity_; }
  [[nodiscard]] bool exists() const override { return entity_ != nullptr; }
  void is(Ref<T> entity) { entity_ = std::move(entity); }
  void del() { entity_.reset(); }

  void create() override {
    if constexpr (requires { entityFactory<T>(); }) {
      if (entity_ == nullptr) entity_ = entityFactory<T>();
    }
  }
  void addSizes(NamedSizes& sizes) const override {
    if constexpr (detail::isVisible<T>()) {
      if constexpr (detail::kIsHolder<T>) {
        KilnPlatform::forEachIn(T::CollectionAttr::of(*entity_), [&](const auto& key, const auto& member) {
          sizes.emplace_back(memberName(name(), key), detail::sizeOf(*member));
        });
      } else {
        sizes.emplace_back(name(), detail::sizeOf(*entity_));
      }
    }
  }
  void noteState(StateDigest& digest) const override {
    if constexpr (detail::isVisible<T>()) detail::noteCollections(digest, name(), std::as_const(*entity_));
  }

 private:
  Ref<T> entity_;
};

}  // namespace KilnEmServer
