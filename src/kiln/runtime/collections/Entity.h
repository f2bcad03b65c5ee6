// Entities: objects that publish collections under names.
//
// Each macro gives a class one collection attribute with the operations and the descriptor of
// kiln/platform/Attribute.h. `CollectionAttr` is the same descriptor for code that treats all entities alike:
// an entity has one collection.
#pragma once

#include <memory>

#include "kiln/platform/Assert.h"
#include "kiln/platform/Attribute.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Collection.h"

#define KILN_COLLECTION_BASE(Owner, name, Kind, KeyType, ValueType) \
 public:                                                            \
  using name##Coll = ::KilnEmServer::Kind<KeyType, ValueType>;      \
  [[nodiscard]] const name##Coll& name() const {                    \
    return name##_;                                                 \
  }                                                                 \
  [[nodiscard]] name##Coll& name() {                                \
    return name##_;                                                 \
  }                                                                 \
  KILN_ATTRIBUTE_OPERATIONS(name, KeyType, ValueType)               \
                                                                    \
 private:                                                           \
  name##Coll name##_;                                               \
                                                                    \
 public:

/// A collection of key to value.
#define KILN_COLLECTION_OF(Kind, Owner, name, KeyType, ValueType) \
  KILN_COLLECTION_BASE(Owner, name, Kind, KeyType, ValueType)     \
  struct name##Attr {                                             \
    KILN_ATTRIBUTE_BASE(Owner, name, KeyType, ValueType)          \
  };                                                              \
  using CollectionAttr = name##Attr;                              \
  void name##Is(const KeyType& key, const ValueType& value) {     \
    name##_.is(key, value);                                       \
  }

#define KILN_COLLECTION(Owner, name, KeyType, ValueType) \
  KILN_COLLECTION_OF(Collection, Owner, name, KeyType, ValueType)
/// The same for a sparse collection: one that holds few of the keys that its readers and writers know.
#define KILN_SPARSE_COLLECTION(Owner, name, KeyType, ValueType) \
  KILN_COLLECTION_OF(SparseCollection, Owner, name, KeyType, ValueType)

/// A collection whose values carry their own key, in their field `keyField`; `nameIs(value)` files a value
/// under it.
#define KILN_KEYED_COLLECTION_OF(Kind, Owner, name, KeyType, ValueType, keyField)                 \
  KILN_COLLECTION_BASE(Owner, name, Kind, KeyType, ValueType)                                     \
  struct name##Attr {                                                                             \
    KILN_ATTRIBUTE_BASE(Owner, name, KeyType, ValueType)                                          \
    static const KeyType& keyOf(const ValueType& value) { return value.keyField; }                \
  };                                                                                              \
  using CollectionAttr = name##Attr;                                                              \
  void name##Is(const KeyType& key, const ValueType& value) {                                     \
    KILN_ASSERT_MESSAGE(value.keyField == key,                                                    \
                        "In \"into( " #name                                                       \
                        "[ key ] )\" the value inserted in the into statement has internal key: " \
                        "{}, but the key specified in the into is: {}",                           \
                        value.keyField, key);                                                     \
    name##_.is(key, value);                                                                       \
  }                                                                                               \
  void name##Is(const ValueType& value) {                                                         \
    name##_.is(value.keyField, value);                                                            \
  }

#define KILN_KEYED_COLLECTION(Owner, name, KeyType, ValueType, keyField) \
  KILN_KEYED_COLLECTION_OF(Collection, Owner, name, KeyType, ValueType, keyField)
#define KILN_SPARSE_KEYED_COLLECTION(Owner, name, KeyType, ValueType, keyField) \
  KILN_KEYED_COLLECTION_OF(SparseCollection, Owner, name, KeyType, ValueType, keyField)

/// A set of keys.
#define KILN_SET(Owner, name, KeyType)                                         \
  KILN_COLLECTION_BASE(Owner, name, Collection, KeyType, ::KilnPlatform::Unit) \
  struct name##Attr {                                                          \
    KILN_ATTRIBUTE_BASE(Owner, name, KeyType, ::KilnPlatform::Unit)            \
  };                                                                           \
  using CollectionAttr = name##Attr;                                           \
  void name##Is(const KeyType& key) {                                          \
    name##_.is(key, {});                                                       \
  }

/// A collection of key to a shared reference to an entity that is constructed with its key; `nameIs(key)`
/// returns the member, creating it if it does not exist.
#define KILN_ENTITY_COLLECTION(Owner, name, KeyType, EntityType)                          \
  KILN_COLLECTION_BASE(Owner, name, Collection, KeyType, ::KilnPlatform::Ref<EntityType>) \
  struct name##Attr {                                                                     \
    KILN_ATTRIBUTE_BASE(Owner, name, KeyType, ::KilnPlatform::Ref<EntityType>)            \
    static ::KilnPlatform::Ref<EntityType> memberOf(Owner& owner, const KeyType& key) {   \
      return owner.name##Is(key);                                                         \
    }                                                                                     \
  };                                                                                      \
  using CollectionAttr = name##Attr;                                                      \
  ::KilnPlatform::Ref<EntityType> name##Is(const KeyType& key) {                          \
    if (const auto* member = name##_.find(key)) return *member;                           \
    auto created = std::make_shared<EntityType>(key);                                     \
    name##_.is(key, created);                                                             \
    return created;                                                                       \
  }

/// A collection of key to a shared reference to an entity that is created elsewhere.
#define KILN_REFERENCE_COLLECTION(Owner, name, KeyType, EntityType)                       \
  KILN_COLLECTION_BASE(Owner, name, Collection, KeyType, ::KilnPlatform::Ref<EntityType>) \
  struct name##Attr {                                                                     \
    KILN_ATTRIBUTE_BASE(Owner, name, KeyType, ::KilnPlatform::Ref<EntityType>)            \
    static ::KilnPlatform::Ref<EntityType> memberOf(Owner& owner, const KeyType& key) {   \
      return owner.name(key).value_or(nullptr);                                           \
    }                                                                                     \
  };                                                                                      \
  using CollectionAttr = name##Attr;                                                      \
  void name##Is(const KeyType& key, const ::KilnPlatform::Ref<EntityType>& entity) {      \
    name##_.is(key, entity);                                                              \
  }
