#include "kiln/agent/scenario/Generate.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include "kiln/agent/io/InputError.h"
#include "kiln/agent/scenario/NumberedKey.h"
#include "kiln/platform/EmKeys.h"

namespace KilnAgent {
namespace {

using KilnEmServer::FeatureType;
using KeyType = KilnEmServer::EmComposerKeyUnionTag;
using KilnTunnelNiLib::IntfIdSystemTcamId;

/// Interfaces of one edge. Each has its own domain, except a few that have the domain of the previous one.
constexpr std::uint64_t kMaxInterfaces = 480;
constexpr std::uint64_t kVlanIds = 4094;
constexpr std::uint64_t kFodoIds = std::uint64_t{1} << 18;
constexpr std::uint64_t kMaxWitnesses = 20;
constexpr std::uint64_t kFlushBytes = std::uint64_t{1} << 16;

/// A well mixed number from a seed, a request's number and its use.
std::uint64_t drawn(std::uint64_t seed, std::uint64_t request, std::uint64_t use) {
  std::uint64_t mixed = seed + 0x9E3779B97F4A7C15U * (request * 16 + use + 1);
  mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9U;
  mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBU;
  return mixed ^ (mixed >> 31U);
}

/// The decisions about each request, each from a number of its own.
enum Use : std::uint64_t { kType, kOverlap, kFeature, kEntry, kBump, kWithdraw, kHold };

/// The share of the requests with a key type, as a part of the sum of all shares.
struct TypeShare {
  KeyType type;
  std::uint64_t share;
};
using Shares = std::array<TypeShare, KilnEmServer::kKeyTypes>;

constexpr bool needsDomain(KeyType type) {
  return KilnEmServer::kKeyTypeInfo[type].resolver != KilnEmServer::ResolverKeyUnionTag::undefined_;
}

/// Out of a thousand requests at an edge between a metro network and its customers. Types that are not listed
/// follow the listed ones.
constexpr std::array<TypeShare, 8> kEdgeShares{{{KeyType::isem1TagEntryKey, 300},
                                                {KeyType::isem2TagEntryKey, 200},
                                                {KeyType::esemFodoVdEntryKey, 70},
                                                {KeyType::isemUntaggedEntryKey, 10},
                                                {KeyType::isemMplsEntryKey, 220},
                                                {KeyType::lemVpwsAcEntryKey, 100},
                                                {KeyType::esemFodoEntryKey, 60},
                                                {KeyType::isemInnerEthEntryKey, 40}}};
constexpr std::uint64_t kOtherShare = 40;

constexpr Shares sharesOf(ScenarioMix mix) {
  Shares shares{};
  std::size_t count = 0;
  const auto add = [&](KeyType type, std::uint64_t share) {
    const bool wanted = mix != (needsDomain(type) ? ScenarioMix::direct : ScenarioMix::vlan);
    shares[count++] = {type, wanted ? share : 0};
  };
  for (const TypeShare& each : kEdgeShares) add(each.type, each.share);
  for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
    const auto isListed = [&](const TypeShare& each) { return each.type == type.composerType; };
    if (std::none_of(kEdgeShares.begin(), kEdgeShares.end(), isListed)) add(type.composerType, kOtherShare);
  }
  return shares;
}

/// The two features that request keys of a type; if both request the same key, the second wins.
constexpr std::array<FeatureType, 2> featuresOf(KeyType type) {
  switch (type) {
    case KeyType::isemUntaggedEntryKey:
      return {FeatureType::bridging, FeatureType::vpws};
    case KeyType::isem1TagEntryKey:
      return {FeatureType::subinterface, FeatureType::evpn};
    case KeyType::isem2TagEntryKey:
      return {FeatureType::subinterface, FeatureType::vpws};
    case KeyType::isemInnerEthEntryKey:
      return {FeatureType::vxlan, FeatureType::evpn};
    case KeyType::isemMplsEntryKey:
      return {FeatureType::mpls, FeatureType::srv6};
    case KeyType::esemFodoVdEntryKey:
    case KeyType::esemFodoEntryKey:
      return {FeatureType::subinterface, FeatureType::mirroring};
    default:
      return {FeatureType::vpws, FeatureType::srv6};
  }
}

/// One request, as a function of the generator's arguments and its number.
struct Request {
  KeyType type;
  std::uint64_t keyNumber;  ///< requests with equal type and key number request one key
  FeatureType feature;
  bool overlaps;  ///< requests the key of the previous request
  bool hold;
  bool bumped;
  bool withdrawn;
};

class Generator {
 public:
  Generator(std::FILE* out, std::uint64_t requests, std::uint64_t seed, ScenarioMix mix)
      : out_(out),
        requests_(requests),
        seed_(seed),
        mix_(mix),
        shares_(sharesOf(mix)),
        interfaces_(std::clamp<std::uint64_t>(requests / 400, 8, kMaxInterfaces)) {
    for (const TypeShare& share : shares_) totalShare_ += share.share;
  }

  void run() {
    line("// kiln-agent generate --requests {} --seed {} --mix {}", requests_, seed_,
         kScenarioMixNames[static_cast<std::size_t>(mix_)]);
    line("// Requests that overlap on some hardware keys, some of them of kind hold.");
    if (mix_ != ScenarioMix::direct) {
      line(R"({{"op":"vlanDomains","mode":"manual"}})");
      allotDomains(false);
    }
    for (std::uint64_t i = 0; i < requests_; ++i) publish(i, 1);
    line(R"({{"op":"settle"}})");
    line("// New versions of some, withdrawals of others, the domains that come late and one that changes.");
    for (std::uint64_t i = 0; i < requests_; ++i) {
      const Request request = requestOf(i);
      if (request.bumped) publish(i, 2);
      if (request.withdrawn) withdraw(i);
    }
    if (mix_ != ScenarioMix::direct) {
      allotDomains(true);
      line(R"({{"op":"allot","intfId":{},"systemTcamId":{},"vlanDomain":511}})", intfId(kMovingInterface),
           systemTcamId(kMovingInterface));
    }
    line(R"({{"op":"settle"}})");
    expectWitnesses();
    flush();
  }

 private:
  static constexpr std::uint64_t kMovingInterface = 3;

  template <class... Args>
  void line(fmt::format_string<Args...> format, Args&&... args) {
    fmt::format_to(std::back_inserter(buffer_), format, std::forward<Args>(args)...);
    buffer_.push_back('\n');
    if (buffer_.size() >= kFlushBytes) flush();
  }
  void flush() {
    if (std::fwrite(buffer_.data(), 1, buffer_.size(), out_) != buffer_.size() || std::fflush(out_) != 0) {
      throw InputError(fmt::format("the scenario cannot be written: {}", std::strerror(errno)));
    }
    buffer_.clear();
  }

  static std::uint64_t intfId(std::uint64_t interface) { return 1000 + interface; }
  static std::uint64_t systemTcamId(std::uint64_t interface) { return interface % 4; }
  static bool sharesDomain(std::uint64_t interface) { return interface % 8 == 5; }
  static bool domainComesLate(std::uint64_t interface) { return interface % 10 == 7; }

  void allotDomains(bool late) {
    for (std::uint64_t interface = 0; interface < interfaces_; ++interface) {
      if (domainComesLate(interface) != late) continue;
      line(R"({{"op":"allot","intfId":{},"systemTcamId":{},"vlanDomain":{}}})", intfId(interface),
           systemTcamId(interface), 1 + interface - (sharesDomain(interface) ? 1 : 0));
    }
  }

  [[nodiscard]] bool chance(std::uint64_t request, Use use, std::uint64_t ofThousand) const {
    return drawn(seed_, request, use) % 1000 < ofThousand;
  }

  [[nodiscard]] KeyType typeOf(std::uint64_t number) const {
    std::uint64_t draw = drawn(seed_, number, kType) % totalShare_;
    KeyType type = KeyType::undefined_;
    for (const TypeShare& share : shares_) {
      if (draw < share.share) {
        type = share.type;
        break;
      }
      draw -= share.share;
    }
    // These key spaces are small: when they are exhausted, larger ones of the same kind replace them.
    if (type == KeyType::esemFodoEntryKey && number >= kFodoIds) return KeyType::lemVpwsAcEntryKey;
    if (type == KeyType::isemUntaggedEntryKey && number >= interfaces_) return KeyType::isem1TagEntryKey;
    return type;
  }

  [[nodiscard]] bool overlapsBefore(std::uint64_t number) const {
    return number % 2 == 1 && chance(number, kOverlap, 40);
  }

  [[nodiscard]] Request requestOf(std::uint64_t number) const {
    const bool overlaps = overlapsBefore(number);
    const std::uint64_t keyNumber = overlaps ? number - 1 : number;
    const KeyType type = typeOf(keyNumber);
    const std::size_t first = drawn(seed_, keyNumber, kFeature) % 2;
    const bool withdrawn = chance(number, kWithdraw, 30);
    return {.type = type,
            .keyNumber = keyNumber,
            .feature = featuresOf(type)[overlaps ? 1 - first : first],
            .overlaps = overlaps,
            .hold = chance(number, kHold, 5),
            .bumped = !withdrawn && chance(number, kBump, 50),
            .withdrawn = withdrawn};
  }

  [[nodiscard]] std::uint64_t interfaceOf(const Request& request) const {
    return request.keyNumber % interfaces_;
  }

  /// The key's fields. Within a type, different key numbers have different keys.
  void addKey(const Request& request) {
    const auto out = std::back_inserter(buffer_);
    const std::uint64_t interface = interfaceOf(request);
    const std::uint64_t rest = request.keyNumber / interfaces_;
    const std::uint64_t n = request.keyNumber;
    const auto beginInterface = [&] {
      fmt::format_to(out, R"("intfId":{},"systemTcamId":{})", intfId(interface), systemTcamId(interface));
    };
    switch (request.type) {
      case KeyType::isemUntaggedEntryKey:
        beginInterface();
        break;
      case KeyType::isem1TagEntryKey:
        beginInterface();
        fmt::format_to(out, R"(,"vlanId":{})", 1 + rest % kVlanIds);
        break;
      case KeyType::isem2TagEntryKey:
        beginInterface();
        fmt::format_to(out, R"(,"outerVlanId":{},"innerVlanId":{})", 1 + rest % kVlanIds,
                       1 + rest / kVlanIds % kVlanIds);
        break;
      case KeyType::esemFodoVdEntryKey:
        beginInterface();
        fmt::format_to(out, R"(,"fodoId":{})", rest % kFodoIds);
        break;
      case KeyType::isemInnerEthEntryKey:
        fmt::format_to(out, R"("vsi":{},"profile":{})", n % 65536, n / 65536 % 256);
        break;
      case KeyType::isemMplsEntryKey:
        fmt::format_to(out, R"("label":{},"labelSpace":0)", 16 + n);
        break;
      case KeyType::esemFodoEntryKey:
        fmt::format_to(out, R"("fodoId":{})", n);
        break;
      case KeyType::lemVpwsAcEntryKey:
        fmt::format_to(out, R"("inLif":{},"outerVlanId":{},"innerVlanId":{},"outerPcp":{},"innerPcp":0)",
                       n % (1U << 20U), 1 + n % kVlanIds, 1 + (n >> 20U) % kVlanIds, n % 8);
        break;
      default:
        addNumberedKey(request);
        break;
    }
  }

  /// The key's fields, for a type that has no case of its own above.
  void addNumberedKey(const Request& request) {
    const std::uint64_t interface = interfaceOf(request);
    const IntfIdSystemTcamId at{intfId(interface), static_cast<std::uint16_t>(systemTcamId(interface))};
    const std::uint64_t number =
        needsDomain(request.type) ? request.keyNumber / interfaces_ : request.keyNumber;
    KilnEmServer::visitKeyType(request.type, [&]<class Row>() {
      const auto key = numberedKey<Row>(number, at);
      addFields(key, [&](std::string_view /*name*/, auto value) { return value; });
    });
  }

  /// "name":value for each field of a structure; `valueOf(name, field)` gives the value.
  template <class T, class ValueOf>
  void addFields(const T& structure, ValueOf valueOf) {
    std::string_view before;
    const auto add = [&](const auto& field) {
      fmt::format_to(std::back_inserter(buffer_), R"({}"{}":{})", std::exchange(before, ","), field.name,
                     valueOf(field.name, structure.*(field.member)));
    };
    std::apply([&](const auto&... field) { (add(field), ...); }, T::fields());
  }

  void addEntry(const Request& request, std::uint64_t number, std::uint64_t version) {
    const std::uint64_t draw = drawn(seed_, number * 4 + version, kEntry);
    const std::uint64_t lif = draw % 1'000'000;
    const std::uint64_t small = draw / 1'000'000 % 4096;
    const auto valueOf = [&](std::string_view name, auto /*field*/) -> std::uint64_t {
      if (name == "lif" || name == "outLif") return lif;
      if (name == "statisticsId") return number;
      return name == "profile" ? small % 8 : small;
    };
    KilnEmServer::visitKeyType(request.type, [&]<class Row>() { addFields(typename Row::Entry{}, valueOf); });
  }

  /// "<op>" with the fields that identify the request, including its key.
  void beginRequest(std::string_view op, const Request& request) {
    using KilnPlatform::stringValue;
    fmt::format_to(std::back_inserter(buffer_),
                   R"({{"op":"{}","feature":"{}","database":"{}","key":{{"{}":{{)", op,
                   stringValue(request.feature), stringValue(KilnEmServer::emTypeOf(request.type)),
                   stringValue(request.type));
    addKey(request);
    fmt::format_to(std::back_inserter(buffer_), "}}}}");
  }

  void publish(std::uint64_t number, std::uint64_t version) {
    const Request request = requestOf(number);
    beginRequest("publish", request);
    fmt::format_to(std::back_inserter(buffer_), R"(,"entry":{{"{}Entry":{{)",
                   KilnEmServer::tableStem(request.type));
    addEntry(request, number, version);
    const std::string_view kind = request.hold ? "hold" : version > 1 ? "modify" : "add";
    line(R"(}}}},"requestVersion":{},"requestKind":"{}"}})", version, kind);
  }

  void withdraw(std::uint64_t number) {
    beginRequest("withdraw", requestOf(number));
    line("}}");
  }

  /// Whether no other request and no shared domain can affect the outcome of this one.
  [[nodiscard]] bool isWitness(std::uint64_t number) const {
    const Request request = requestOf(number);
    if (request.overlaps || request.hold || request.withdrawn || overlapsBefore(number + 1)) return false;
    const std::uint64_t interface = interfaceOf(request);
    return !needsDomain(request.type) || (!sharesDomain(interface) && !sharesDomain(interface + 1));
  }

  void expectWitnesses() {
    const std::uint64_t step = std::max<std::uint64_t>(requests_ / kMaxWitnesses, 1);
    for (std::uint64_t begin = 0; begin < requests_; begin += step) {
      std::uint64_t number = begin;
      while (number < std::min(begin + step, requests_) && !isWitness(number)) ++number;
      if (number == std::min(begin + step, requests_)) continue;
      const Request request = requestOf(number);
      beginRequest("expect", request);
      line(R"(,"status":"hwSuccess","requestVersion":{},"result":1}})", request.bumped ? 2 : 1);
    }
  }

  std::FILE* out_;
  std::uint64_t requests_;
  std::uint64_t seed_;
  ScenarioMix mix_;
  Shares shares_;
  std::uint64_t totalShare_ = 0;
  std::uint64_t interfaces_;
  fmt::memory_buffer buffer_;
};

}  // namespace

void generateScenario(std::FILE* out, std::uint64_t requests, std::uint64_t seed, ScenarioMix mix) {
  Generator(out, requests, seed, mix).run();
}

}  // namespace KilnAgent
