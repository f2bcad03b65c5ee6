// The rows of which the server's graph of stages consists: what a stage waits for, and the typed arguments
// from which it is created. What a row declares is what its stage is handed, and what the graph shows.
#pragma once

#include <fmt/format.h>

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/platform/DependencyManager.h"
#include "kiln/platform/DependencyStatus.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/runtime/stage/Stage.h"
#include "kiln/server/ServerEntity.h"
#include "kiln/server/ServerStages.h"

namespace KilnEmServer {

// --- Arguments ---------------------------------------------------------------------------------------------

/// How a stage uses an entity. Only what is read gates a stage; feedback is read, too.
enum class EntityUse : std::uint8_t { read, feedback, write, update };

/// A use of an entity, or of the member of a holder.
struct DeclaredUse {
  EntityUse use;
  const ServerEntity* entity;
  std::string member;  ///< "holder[ key ]"; empty for the entity itself
};

/// The entities that a stage was handed to read and to write, by their addresses.
struct HandedOver {
  /// An entity; of a holder also the members: a stage may use these in its place.
  struct Entity {
    const void* address;
    StageBase::Entities members = {};
  };
  std::vector<Entity> read;
  std::vector<Entity> written;
  bool absent = false;  ///< a member does not exist

  void add(EntityUse use, const Entity& entity);
};

/// What a stage gets to say that it is complete, and to run on.
struct OwnArguments {
  std::string name;
  Ref<DependencyStatus> dependencyStatus;
  StageControl control;
};

/// Stands for name, dependency status and control of the stage, the last arguments of most factories.
struct Own {};
/// Stands for name and dependency status.
struct OwnRecord {};
/// Stands for scheduler and priority.
struct OwnTask {};
/// Stands for the control.
struct OwnControl {};
inline constexpr Own own;
inline constexpr OwnRecord ownRecord;
inline constexpr OwnTask ownTask;
inline constexpr OwnControl ownControl;

namespace detail {

/// The addresses of a holder's members; none for any other entity.
template <class T>
StageBase::Entities membersOf(const T& entity) {
  StageBase::Entities members;
  if constexpr (requires { typename T::CollectionAttr; }) {
    if constexpr (kIsHolder<T>) {
      KilnPlatform::forEachIn(T::CollectionAttr::of(entity), [&](const auto& /*key*/, const auto& member) {
        members.push_back(member.get());
      });
    }
  }
  return members;
}

}  // namespace detail

/// An entity as an argument: const unless the stage writes it.
template <EntityUse use, class T>
struct EntityArgument {
  static constexpr bool kWrites = use == EntityUse::write || use == EntityUse::update;
  using Passed = std::conditional_t<kWrites, Ref<T>, Ref<const T>>;

  const ServerEntityOf<T>* entity;

  void declare(std::vector<DeclaredUse>& uses) const { uses.push_back({use, entity, {}}); }
  [[nodiscard]] std::tuple<Passed> pass(const OwnArguments& /*given*/, HandedOver& handed) const {
    handed.add(use, {(*entity)().get(), detail::membersOf(*(*entity)())});
    return {(*entity)()};
  }
};

/// The member of a holder as an argument. It is created with its first use, if its holder creates members.
template <EntityUse use, class Holder>
struct MemberArgument {
  using Attr = typename Holder::CollectionAttr;
  using Member = typename detail::ReferredTo<typename Attr::Value>::type;
  static constexpr bool kWrites = use == EntityUse::write || use == EntityUse::update;
  using Passed = std::conditional_t<kWrites, Ref<Member>, Ref<const Member>>;

  const ServerEntityOf<Holder>* holder;
  typename Attr::Key key;

  void declare(std::vector<DeclaredUse>& uses) const {
    uses.push_back({use, holder, memberName(holder->name(), key)});
  }
  [[nodiscard]] std::tuple<Passed> pass(const OwnArguments& /*given*/, HandedOver& handed) const {
    const Ref<Member> member = Attr::memberOf(*(*holder)(), key);
    handed.absent = handed.absent || member == nullptr;
    handed.add(use, {member.get()});
    return {member};
  }
};

/// A holder of which only some members are used.
template <EntityUse use, class Holder>
struct MembersArgument {
  using One = MemberArgument<use, Holder>;
  using Passed = std::conditional_t<One::kWrites, Ref<Holder>, Ref<const Holder>>;

  const ServerEntityOf<Holder>* holder;
  std::vector<typename Holder::CollectionAttr::Key> keys;

  void declare(std::vector<DeclaredUse>& uses) const {
    for (const auto& key : keys) One{holder, key}.declare(uses);
  }
  [[nodiscard]] std::tuple<Passed> pass(const OwnArguments& given, HandedOver& handed) const {
    for (const auto& key : keys) (void)One{holder, key}.pass(given, handed);
    return {(*holder)()};
  }
};

/// Read; the stage is released when every other stage that writes it is complete.
template <class T>
EntityArgument<EntityUse::read, T> in(const ServerEntityOf<T>& entity) {
  return {&entity};
}
template <class Holder>
MemberArgument<EntityUse::read, Holder> in(const ServerEntityOf<Holder>& holder,
                                           typename Holder::CollectionAttr::Key key) {
  return {&holder, key};
}
/// Read without waiting for those that write it.
template <class T>
EntityArgument<EntityUse::feedback, T> feedback(const ServerEntityOf<T>& entity) {
  return {&entity};
}
template <class Holder>
MemberArgument<EntityUse::feedback, Holder> feedback(const ServerEntityOf<Holder>& holder,
                                                     typename Holder::CollectionAttr::Key key) {
  return {&holder, key};
}
/// Written.
template <class T>
EntityArgument<EntityUse::write, T> out(const ServerEntityOf<T>& entity) {
  return {&entity};
}
template <class Holder>
MemberArgument<EntityUse::write, Holder> out(const ServerEntityOf<Holder>& holder,
                                             typename Holder::CollectionAttr::Key key) {
  return {&holder, key};
}
template <class Holder>
MembersArgument<EntityUse::write, Holder> out(const ServerEntityOf<Holder>& holder,
                                              std::vector<typename Holder::CollectionAttr::Key> keys) {
  return {&holder, std::move(keys)};
}
/// Written, and read as feedback: what an earlier server left, or what others write into it.
template <class T>
EntityArgument<EntityUse::update, T> update(const ServerEntityOf<T>& entity) {
  return {&entity};
}

/// An argument that may be left out: then a null reference is passed.
template <class Argument>
struct OptionalArgument {
  bool present;
  Argument argument;

  void declare(std::vector<DeclaredUse>& uses) const {
    if (present) argument.declare(uses);
  }
  [[nodiscard]] std::tuple<typename Argument::Passed> pass(const OwnArguments& given,
                                                           HandedOver& handed) const {
    if (present) return argument.pass(given, handed);
    return {nullptr};
  }
};
template <class Argument>
OptionalArgument<Argument> onlyIf(bool present, Argument argument) {
  return {present, std::move(argument)};
}

namespace detail {

/// A function is called when the stage is created, any other argument is passed as it is.
template <class T>
concept UsesEntities = requires(const T& argument, std::vector<DeclaredUse>& uses) {
  argument.declare(uses);
};

template <class T>
auto passed(const T& argument, const OwnArguments& given, HandedOver& handed) {
  if constexpr (UsesEntities<T>) {
    return argument.pass(given, handed);
  } else if constexpr (std::is_same_v<T, Own>) {
    return std::make_tuple(given.name, given.dependencyStatus, given.control);
  } else if constexpr (std::is_same_v<T, OwnRecord>) {
    return std::make_tuple(given.name, given.dependencyStatus);
  } else if constexpr (std::is_same_v<T, OwnTask>) {
    return std::make_tuple(given.control.scheduler, given.control.priority);
  } else if constexpr (std::is_same_v<T, OwnControl>) {
    return std::make_tuple(given.control);
  } else if constexpr (std::invocable<const T&>) {
    return std::make_tuple(argument());
  } else {
    return std::make_tuple(argument);
  }
}
template <class... Args>
auto allPassed(const std::tuple<Args...>& arguments, const OwnArguments& given, HandedOver& handed) {
  return std::apply(
      [&](const auto&... each) {
        // In braces, so that they are evaluated from left to right.
        std::tuple<decltype(passed(each, given, handed))...> tuples{passed(each, given, handed)...};
        return std::apply([](auto&&... parts) { return std::tuple_cat(std::move(parts)...); },
                          std::move(tuples));
      },
      arguments);
}
template <class... Args>
void allDeclared(const std::tuple<Args...>& arguments, std::vector<DeclaredUse>& uses) {
  const auto declare = [&](const auto& argument) {
    if constexpr (UsesEntities<std::decay_t<decltype(argument)>>) argument.declare(uses);
  };
  std::apply([&](const auto&... each) { (declare(each), ...); }, arguments);
}

}  // namespace detail

/// Several arguments that a factory takes as one aggregate.
template <class T, class... Args>
struct GroupedArguments {
  using Passed = T;
  std::tuple<Args...> arguments;

  void declare(std::vector<DeclaredUse>& uses) const { detail::allDeclared(arguments, uses); }
  [[nodiscard]] std::tuple<T> pass(const OwnArguments& given, HandedOver& handed) const {
    return {std::apply([](auto&&... parts) { return T{std::move(parts)...}; },
                       detail::allPassed(arguments, given, handed))};
  }
};
template <class T, class... Args>
GroupedArguments<T, Args...> grouped(Args... arguments) {
  return {{std::move(arguments)...}};
}

// --- Rows --------------------------------------------------------------------------------------------------

/// What a row does when it is released: it creates one stage, or acts on others.
class RowPart {
 public:
  explicit RowPart(std::string name) : name_(std::move(name)) {}
  virtual ~RowPart() = default;
  RowPart(const RowPart&) = delete;
  RowPart& operator=(const RowPart&) = delete;

  /// The name under which it reports.
  [[nodiscard]] const std::string& name() const { return name_; }
  /// False if there was nothing to do: a feature is not present.
  virtual bool run(const OwnArguments& given) = 0;
  /// Whether what it does adds its name to the dependency status.
  [[nodiscard]] virtual bool reportsItself() const = 0;
  /// Null if it has none, or none yet.
  [[nodiscard]] virtual const StageBase* stage() const { return nullptr; }
  /// Hands the stage over to the caller.
  virtual Ref<StageBase> take() { return nullptr; }

 private:
  std::string name_;
};

/// Holds what a stage registered against what its row declares: each entity that it reads or writes is
/// declared, and is used. Asserted in every build.
void checkRegistered(const StageBase& stage, const HandedOver& handed);

template <class S, class Factory, class... Args>
class StagePart final : public RowPart {
 public:
  StagePart(std::string name, StageOf<S>& place, Factory factory, std::tuple<Args...> arguments)
      : RowPart(std::move(name)),
        place_(place),
        factory_(std::move(factory)),
        arguments_(std::move(arguments)) {}

  bool run(const OwnArguments& given) override {
    HandedOver handed;
    auto passed = detail::allPassed(arguments_, given, handed);
    if (handed.absent) return false;
    Ref<S> stage = std::apply(factory_, std::move(passed));
    checkRegistered(*stage, handed);
    place_.is(std::move(stage));
    return true;
  }
  [[nodiscard]] bool reportsItself() const override {
    return (... || (std::is_same_v<Args, Own> || std::is_same_v<Args, OwnRecord>));
  }
  [[nodiscard]] const StageBase* stage() const override { return place_().get(); }
  Ref<StageBase> take() override {
    Ref<StageBase> stage = place_();
    place_.del();
    return stage;
  }

 private:
  StageOf<S>& place_;
  Factory factory_;
  std::tuple<Args...> arguments_;
};

template <class Action>
class ActionPart final : public RowPart {
 public:
  ActionPart(std::string name, Action action, bool reportsItself)
      : RowPart(std::move(name)), action_(std::move(action)), reportsItself_(reportsItself) {}

  bool run(const OwnArguments& given) override {
    action_(given.name);
    return true;
  }
  [[nodiscard]] bool reportsItself() const override { return reportsItself_; }

 private:
  Action action_;
  bool reportsItself_;
};

/// One stage of the stage map. It consists of one part of its own name, or of several that report as
/// "name-key"; then it is complete when each of them is.
class StageRow {
 public:
  explicit StageRow(std::string name, bool keyed = false) : name_(std::move(name)), keyed_(keyed) {}

  // Declarations; each returns the row.

  /// Entities that must exist before the stage is released.
  template <class... Entities>
  StageRow& waitsFor(const Entities&... entities) {
    (waitsFor_.push_back(&entities), ...);
    return *this;
  }
  /// Every stage that writes the entity is complete first.
  StageRow& afterWritersOf(const ServerEntity& entity) {
    afterWritersOf_.push_back(&entity);
    return *this;
  }
  /// Another stage is complete first.
  StageRow& after(std::string stage) {
    after_.push_back(std::move(stage));
    return *this;
  }
  StageRow& afterEveryOther() {
    afterEveryOther_ = true;
    return *this;
  }
  /// Its stages are destroyed before all others: tables call them back, or they hold such stages.
  StageRow& endsFirst() {
    endsFirst_ = true;
    return *this;
  }
  /// Its stage exists while the feature is present.
  StageRow& ofFeature(FeatureType feature) {
    feature_ = feature;
    return *this;
  }
  /// When the row is released, `factory` creates its stage from the arguments.
  template <class S, class Factory, class... Args>
  StageRow& create(StageOf<S>& place, Factory factory, Args... arguments) {
    return addStage(name_, place, std::move(factory), std::tuple<Args...>(std::move(arguments)...));
  }
  /// The same for one of several parts.
  template <class Key, class S, class Factory, class... Args>
  StageRow& createPart(const Key& key, StageOf<S>& place, Factory factory, Args... arguments) {
    return addStage(partName(key), place, std::move(factory), std::tuple<Args...>(std::move(arguments)...));
  }
  /// When the row is released, `action` runs.
  template <std::invocable Action>
  StageRow& run(Action action) {
    const auto act = [action = std::move(action)](const std::string& /*name*/) { action(); };
    parts_.push_back(std::make_unique<ActionPart<decltype(act)>>(name_, act, false));
    return *this;
  }
  /// One of several actions, each of which sees to it that the name that it is given is reported.
  template <class Key, std::invocable<const std::string&> Action>
  StageRow& runPart(const Key& key, Action action) {
    parts_.push_back(std::make_unique<ActionPart<Action>>(partName(key), std::move(action), true));
    return *this;
  }

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] bool keyed() const { return keyed_; }
  [[nodiscard]] bool isAfterEveryOther() const { return afterEveryOther_; }
  [[nodiscard]] bool doesEndFirst() const { return endsFirst_; }
  [[nodiscard]] std::optional<FeatureType> feature() const { return feature_; }
  [[nodiscard]] const std::vector<const ServerEntity*>& awaited() const { return waitsFor_; }
  [[nodiscard]] const std::vector<const ServerEntity*>& awaitedWritten() const { return afterWritersOf_; }
  [[nodiscard]] const std::vector<std::string>& awaitedStages() const { return after_; }
  [[nodiscard]] const std::vector<DeclaredUse>& uses() const { return uses_; }
  [[nodiscard]] const std::vector<std::unique_ptr<RowPart>>& parts() const { return parts_; }
  /// Calls `visitor(stage)` with each of its stages that exists.
  template <class Visitor>
  void forEachStage(Visitor&& visitor) const {
    for (const auto& part : parts_) {
      if (part->stage() != nullptr) visitor(*part->stage());
    }
  }
  [[nodiscard]] bool writes(const ServerEntity& entity) const;

 private:
  template <class Key>
  [[nodiscard]] std::string partName(const Key& key) const {
    return fmt::format("{}-{}", name_, key);
  }
  template <class S, class Factory, class... Args>
  StageRow& addStage(std::string name, StageOf<S>& place, Factory factory, std::tuple<Args...> arguments) {
    place.beWired();
    detail::allDeclared(arguments, uses_);
    parts_.push_back(std::make_unique<StagePart<S, Factory, Args...>>(
        std::move(name), place, std::move(factory), std::move(arguments)));
    return *this;
  }

  std::string name_;
  bool keyed_;  ///< one of several rows that differ in a key
  bool afterEveryOther_ = false;
  bool endsFirst_ = false;
  std::optional<FeatureType> feature_;
  std::vector<const ServerEntity*> waitsFor_;
  std::vector<const ServerEntity*> afterWritersOf_;
  std::vector<std::string> after_;
  std::vector<DeclaredUse> uses_;
  std::vector<std::unique_ptr<RowPart>> parts_;
};

/// All rows, in the order of the road of an entry, and what is computed from them.
class Wiring final : private KilnPlatform::KeySubscriber<std::string> {
 public:
  /// Completed rows are recorded in `dependencyStatus`, the parts of rows with several in `partStatus`.
  Wiring(Ref<DependencyStatus> dependencyStatus, Ref<DependencyStatus> partStatus, StageControl control);
  ~Wiring();
  Wiring(const Wiring&) = delete;
  Wiring& operator=(const Wiring&) = delete;

  /// Adds a row.
  StageRow& wire(std::string stage);
  /// Adds a row that differs from others in a key.
  template <class Key>
  StageRow& wire(std::string_view stage, const Key& key) {
    return add(fmt::format("{}-{}", stage, key), true);
  }
  [[nodiscard]] const std::vector<std::unique_ptr<StageRow>>& rows() const { return rows_; }
  [[nodiscard]] const StageRow* find(const std::string& stage) const;

  /// The stage map: rows without a key first. Its actions refer to this object.
  [[nodiscard]] KilnPlatform::StageMap stageMap();
  /// Creates what the row consists of; it may do so again when that was taken away.
  void run(const StageRow& row);
  void destroyStages();
  /// Every stage that exists, in the order of the rows.
  [[nodiscard]] std::vector<const StageBase*> stages() const;

 private:
  StageRow& add(std::string stage, bool keyed);
  using Names = std::vector<std::string>;

  void handleChange(const std::string& part) override;
  [[nodiscard]] KilnPlatform::StageMapEntry entryOf(const StageRow& row);
  void addShown(Names& names, const DeclaredUse& use) const;
  [[nodiscard]] Names namesOf(const StageRow& row, std::initializer_list<EntityUse> uses) const;
  [[nodiscard]] Names stagesBefore(const StageRow& row) const;

  Ref<DependencyStatus> dependencyStatus_;
  Ref<DependencyStatus> partStatus_;
  StageControl control_;
  std::vector<std::unique_ptr<StageRow>> rows_;
};

}  // namespace KilnEmServer
