#include "kiln/server/StageRow.h"

#include <algorithm>

namespace KilnEmServer {
namespace {

template <class List, class T>
bool contains(const List& list, const T& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

void addOnce(std::vector<std::string>& names, const std::string& name) {
  if (!contains(names, name)) names.push_back(name);
}

bool writes(EntityUse use) {
  return use == EntityUse::write || use == EntityUse::update;
}

}  // namespace

void HandedOver::add(EntityUse use, const Entity& entity) {
  if (entity.address == nullptr) return;
  if (use != EntityUse::write) read.push_back(entity);
  if (writes(use)) written.push_back(entity);
}

void checkRegistered(const StageBase& stage, const HandedOver& handed) {
  using Declared = std::vector<HandedOver::Entity>;
  const auto check = [&](const StageBase::Entities& registered, const Declared& declared, const char* does) {
    for (const void* entity : registered) {
      const bool known = std::any_of(declared.begin(), declared.end(), [&](const auto& each) {
        return each.address == entity || contains(each.members, entity);
      });
      KILN_ASSERT_MESSAGE(known, "{} {} an entity that its row does not declare", stage.name(), does);
    }
    for (const auto& each : declared) {
      const bool used = std::any_of(registered.begin(), registered.end(), [&](const void* entity) {
        return each.address == entity || contains(each.members, entity);
      });
      KILN_ASSERT_MESSAGE(used, "the row of {} declares that it {} an entity, but it does not", stage.name(),
                          does);
    }
  };
  check(stage.readEntities(), handed.read, "reads");
  check(stage.writtenEntities(), handed.written, "writes");
}

bool StageRow::writes(const ServerEntity& entity) const {
  return std::any_of(uses_.begin(), uses_.end(), [&](const DeclaredUse& use) {
    return use.entity == &entity && KilnEmServer::writes(use.use);
  });
}

// --- Wiring ------------------------------------------------------------------------------------------------

Wiring::Wiring(Ref<DependencyStatus> dependencyStatus, Ref<DependencyStatus> partStatus, StageControl control)
    : dependencyStatus_(std::move(dependencyStatus)),
      partStatus_(std::move(partStatus)),
      control_(std::move(control)) {
  partStatus_->completed().subscribe(*this);
}

Wiring::~Wiring() {
  partStatus_->completed().unsubscribe(*this);
}

StageRow& Wiring::wire(std::string stage) {
  return add(std::move(stage), false);
}

StageRow& Wiring::add(std::string stage, bool keyed) {
  KILN_ASSERT_MESSAGE(find(stage) == nullptr, "two rows have the name {}", stage);
  return *rows_.emplace_back(std::make_unique<StageRow>(std::move(stage), keyed));
}

const StageRow* Wiring::find(const std::string& stage) const {
  const auto found =
      std::find_if(rows_.begin(), rows_.end(), [&](const auto& row) { return row->name() == stage; });
  return found == rows_.end() ? nullptr : found->get();
}

void Wiring::run(const StageRow& row) {
  for (const auto& part : row.parts()) {
    const bool isWhole = part->name() == row.name();
    const OwnArguments given{part->name(), isWhole ? dependencyStatus_ : partStatus_, control_};
    const bool ran = part->run(given);
    if (!ran || !part->reportsItself()) given.dependencyStatus->completedIs(given.name);
  }
}

void Wiring::handleChange(const std::string& part) {
  for (const auto& row : rows_) {
    const auto& parts = row->parts();
    if (std::none_of(parts.begin(), parts.end(), [&](const auto& each) { return each->name() == part; }))
      continue;
    const auto complete = [&](const auto& each) { return partStatus_->completed().has(each->name()); };
    if (std::all_of(parts.begin(), parts.end(), complete)) dependencyStatus_->completedIs(row->name());
  }
}

std::vector<const StageBase*> Wiring::stages() const {
  std::vector<const StageBase*> stages;
  for (const auto& row : rows_) {
    row->forEachStage([&](const StageBase& stage) { stages.push_back(&stage); });
  }
  return stages;
}

void Wiring::destroyStages() {
  const auto destroy = [this](bool first) {
    for (auto row = rows_.rbegin(); row != rows_.rend(); ++row) {
      if ((*row)->doesEndFirst() != first) continue;
      for (const auto& part : (*row)->parts()) part->take();
    }
  };
  destroy(true);
  destroy(false);
}

// --- The stage map -----------------------------------------------------------------------------------------

KilnPlatform::StageMap Wiring::stageMap() {
  KilnPlatform::StageMap map;
  for (const bool keyed : {false, true}) {
    for (const auto& row : rows_) {
      if (row->keyed() == keyed) map.push_back(entryOf(*row));
    }
  }
  for (const auto& row : rows_) {
    if (!row->isAfterEveryOther()) continue;
    const auto entry =
        std::find_if(map.begin(), map.end(), [&](const auto& each) { return each.stage == row->name(); });
    for (const auto& other : map) {
      if (other.stage != entry->stage) entry->after.push_back(other.stage);
    }
  }
  return map;
}

KilnPlatform::StageMapEntry Wiring::entryOf(const StageRow& row) {
  Names waitsFor;
  for (const ServerEntity* entity : row.awaited()) waitsFor.push_back(entity->name());
  return {row.name(),
          [this, &row] { run(row); },
          std::move(waitsFor),
          namesOf(row, {EntityUse::read}),
          namesOf(row, {EntityUse::feedback, EntityUse::update}),
          namesOf(row, {EntityUse::write, EntityUse::update}),
          stagesBefore(row)};
}

Wiring::Names Wiring::namesOf(const StageRow& row, std::initializer_list<EntityUse> uses) const {
  Names names;
  for (const DeclaredUse& use : row.uses()) {
    if (contains(uses, use.use)) addShown(names, use);
  }
  return names;
}

// A reader of a holder reads the members that are written one by one; a reader of a member reads the holder
// if its members are not written one by one.
void Wiring::addShown(Names& names, const DeclaredUse& use) const {
  const std::string& declared = use.member.empty() ? use.entity->name() : use.member;
  if (writes(use.use)) return addOnce(names, declared);
  Names members;
  bool asWhole = false;
  for (const auto& row : rows_) {
    for (const DeclaredUse& other : row->uses()) {
      if (other.entity != use.entity || !writes(other.use)) continue;
      if (other.member.empty()) asWhole = true;
      if (!other.member.empty()) addOnce(members, other.member);
    }
  }
  if (asWhole || members.empty()) return addOnce(names, use.entity->name());
  if (!use.member.empty()) return addOnce(names, declared);
  for (const std::string& member : members) addOnce(names, member);
}

Wiring::Names Wiring::stagesBefore(const StageRow& row) const {
  Names stages;
  for (const std::string& stage : row.awaitedStages()) {
    KILN_ASSERT_MESSAGE(find(stage) != nullptr, "{} is after the unknown stage {}", row.name(), stage);
    addOnce(stages, stage);
  }
  for (const ServerEntity* entity : row.awaitedWritten()) {
    for (const auto& other : rows_) {
      if (other.get() != &row && other->writes(*entity)) addOnce(stages, other->name());
    }
  }
  return stages;
}

}  // namespace KilnEmServer
