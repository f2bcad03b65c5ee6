// The operations that every collection attribute of an entity has, named after it:
//   name()            the collection
//   name(key)         a copy of the value under key, if there is one
//   nameHas(key)
//   nameIs(key, value), nameDel(key), nameDelAll()
// and a descriptor `<name>Attr`, by which inputs and outputs of stages refer to it.
#pragma once

#include <memory>
#include <optional>

#include "kiln/platform/Collection.h"
#include "kiln/platform/FixedString.h"

#define KILN_ATTRIBUTE_OPERATIONS(name, KeyType, ValueType)               \
  [[nodiscard]] std::optional<ValueType> name(const KeyType& key) const { \
    return name().get(key);                                               \
  }                                                                       \
  [[nodiscard]] bool name##Has(const KeyType& key) const {                \
    return name().has(key);                                               \
  }                                                                       \
  void name##Del(const KeyType& key) {                                    \
    name().del(key);                                                      \
  }                                                                       \
  void name##DelAll() {                                                   \
    name().delAll();                                                      \
  }

#define KILN_ATTRIBUTE_BASE(Owner, name, KeyType, ValueType) \
  using Entity = Owner;                                      \
  using Key = KeyType;                                       \
  using Value = ValueType;                                   \
  static constexpr ::KilnPlatform::FixedString kName{#name}; \
  static auto& of(Owner& entity) {                           \
    return entity.name();                                    \
  }                                                          \
  static const auto& of(const Owner& entity) {               \
    return entity.name();                                    \
  }

/// An attribute of an entity that receives its collection when it is constructed, but for `nameIs` and
/// `nameAttr`.
#define KILN_GIVEN_COLLECTION(name, KeyType, ValueType)                   \
 public:                                                                  \
  using name##Coll = ::KilnPlatform::KeyedCollection<KeyType, ValueType>; \
  name##Coll& name() {                                                    \
    return *name##_;                                                      \
  }                                                                       \
  [[nodiscard]] const name##Coll& name() const {                          \
    return *name##_;                                                      \
  }                                                                       \
  KILN_ATTRIBUTE_OPERATIONS(name, KeyType, ValueType)                     \
                                                                          \
 private:                                                                 \
  std::unique_ptr<name##Coll> name##_;                                    \
                                                                          \
 public:
