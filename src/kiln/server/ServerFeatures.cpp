#include "kiln/server/ServerFeatures.h"

#include <algorithm>
#include <utility>

namespace KilnEmServer {
namespace {

/// The collection of a feature's requests or statuses.
template <class Entity>
const auto& contentOf(const Entity& entity) {
  if constexpr (requires { entity.config(); }) {
    return entity.config();
  } else {
    return entity.status();
  }
}

}  // namespace

ServerFeatures::ServerFeatures(Ref<KilnPlatform::StateStore> store, ServerEntities& entities)
    : store_(std::move(store)), entities_(entities) {
  KilnPlatform::forEachEnumValue<FeatureType>([this](FeatureType feature) {
    if (present(feature)) mount(feature);
  });
}

ServerFeatures::~ServerFeatures() {
  if (task_ != nullptr) store_->features().unsubscribe(*this);
}

void ServerFeatures::follow(Wiring& wiring, const DependencyManagerSm& manager,
                            Ref<DependencyStatus> dependencyStatus, StageControl control) {
  wiring_ = &wiring;
  manager_ = &manager;
  dependencyStatus_ = std::move(dependencyStatus);
  control_ = std::move(control);
  task_ = std::make_unique<Task>(
      control_.scheduler, control_.priority, "KilnEmServerSm-FeatureTask",
      [](void* owner) { static_cast<ServerFeatures*>(owner)->handleFeatures(); }, this);
  store_->features().subscribe(*this);
}

template <class Visitor>
void ServerFeatures::forEachMount(Visitor&& visitor) const {
  using Store = KilnPlatform::StateStore;
  visitor(entities_.isemSrvConfigByFeature, &Store::isemSrvConfig);
  visitor(entities_.esemSrvConfigByFeature, &Store::esemSrvConfig);
  visitor(entities_.lemSrvConfigByFeature, &Store::lemSrvConfig);
  visitor(entities_.isemSrvStatusByFeature, &Store::isemSrvStatus);
  visitor(entities_.esemSrvStatusByFeature, &Store::esemSrvStatus);
  visitor(entities_.lemSrvStatusByFeature, &Store::lemSrvStatus);
}

template <class Visitor>
void ServerFeatures::forEachRow(FeatureType feature, Visitor&& visitor) const {
  for (const auto& row : wiring_->rows()) {
    if (row->feature() == feature) visitor(*row);
  }
}

// --- Changes -----------------------------------------------------------------------------------------------

void ServerFeatures::handleChange(const FeatureType& feature) {
  changed_.add(feature, 0);
  task_->scheduleTask();
}

void ServerFeatures::handleFeatures() {
  const auto hasNext = [this] { return !changed_.empty() || !leaving_.empty(); };
  const auto handleNext = [this] {
    if (changed_.empty()) return withdrawNext();
    handleFeature(changed_.pop());
  };
  const auto left = [this] {
    std::size_t items = changed_.size() + leaving_.size();
    for (const Leaving& leaving : leaving_) items += leaving.stage->keysInOutputs();
    return items;
  };
  control_.runSlice(*task_, hasNext, handleNext, left);
}

void ServerFeatures::handleFeature(FeatureType feature) {
  const bool isPresent = present(feature);
  if (entities_.isemSrvConfigByFeature()->isemConfigHas(feature) && (!isPresent || replaced(feature))) {
    unmount(feature);
  }
  if (isPresent) mount(feature);
}

void ServerFeatures::withdrawNext() {
  if (leaving_.front().stage->deleteNext()) return;
  const Leaving left = std::move(leaving_.front());
  leaving_.pop_front();
  // Nothing is left of it to wait for.
  if (!present(left.feature)) return dependencyStatus_->completedIs(left.stage->name());
  tracer_.trace<8>("{} came back before its statuses were withdrawn", left.feature);
  mount(left.feature);
}

bool ServerFeatures::replaced(FeatureType feature) const {
  return *entities_.isemSrvConfigByFeature()->isemConfig(feature) != store_->isemSrvConfig(feature);
}

void ServerFeatures::mount(FeatureType feature) {
  forEachMount([&]<class Holder>(const ServerEntityOf<Holder>& holder, auto of) {
    Holder::CollectionAttr::of(*holder()).is(feature, ((*store_).*of)(feature));
  });
  if (wiring_ != nullptr) createStages(feature);
}

void ServerFeatures::createStages(FeatureType feature) {
  forEachRow(feature, [&](const StageRow& row) {
    bool exists = false;
    row.forEachStage([&](const StageBase& /*stage*/) { exists = true; });
    if (exists || !manager_->released(row.name())) return;
    const bool follows = std::any_of(leaving_.begin(), leaving_.end(), [&](const Leaving& leaving) {
      return leaving.stage->name() == row.name();
    });
    // It was reported in the absent stage's place, or is the name of one that leaves.
    dependencyStatus_->completedDel(row.name());
    if (!follows) wiring_->run(row);
  });
}

void ServerFeatures::unmount(FeatureType feature) {
  forEachRow(feature, [&](const StageRow& row) {
    for (const auto& part : row.parts()) {
      auto stage = std::dynamic_pointer_cast<Stage>(part->take());
      if (stage == nullptr) continue;
      stage->beginDeleteAll(Withdrawal::everything);
      leaving_.push_back({feature, std::move(stage)});
    }
  });
  forEachMount([&]<class Holder>(const ServerEntityOf<Holder>& holder, auto /*of*/) {
    Holder::CollectionAttr::of(*holder()).del(feature);
  });
}

// --- State -------------------------------------------------------------------------------------------------

void ServerFeatures::noteState(StateDigest& digest) const {
  noteMounts(digest);
  // A stage that leaves is the only one that still has what it withdraws.
  for (const Leaving& leaving : leaving_) {
    leaving.stage->noteState(digest);
    digest.add(leaving.feature);
    for (const OutputBase* output : leaving.stage->outputs()) output->noteContent(digest);
  }
  digest.begin("KilnEmServerSm");
  changed_.forEach([&](FeatureType feature, Arrival /*arrival*/) { digest.add(feature); });
  digest.add(changed_.size());
}

/// Which of the store's collections the server has: the present one of a feature, which the store describes,
/// or one that is present no more, or none.
void ServerFeatures::noteMounts(StateDigest& digest) const {
  forEachMount([&]<class Holder>(const ServerEntityOf<Holder>& holder, auto of) {
    const auto& collection = Holder::CollectionAttr::of(std::as_const(*holder()));
    digest.begin(holder.name(), &collection);
    KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
      const auto* mounted = collection.find(feature);
      const bool left = mounted != nullptr && (!present(feature) || *mounted != ((*store_).*of)(feature));
      digest.add(mounted != nullptr);
      digest.add(left);
      if (left) digest.addContent(contentOf(std::as_const(**mounted)));
    });
  });
}

}  // namespace KilnEmServer
