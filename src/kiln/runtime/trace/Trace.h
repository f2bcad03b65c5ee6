// The trace facility: levelled messages, filtered by level and by stage name, written to any number of sinks.
#pragma once

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kiln/platform/Ref.h"
#include "kiln/platform/TraceSink.h"

namespace KilnEmServer {

using KilnPlatform::Ref;
using KilnPlatform::TraceDescriptor;
using KilnPlatform::TraceRecord;
using KilnPlatform::TraceSink;

/// A message of a level, checked at compile time against the types of its arguments.
template <int Level, class... Args>
struct TraceMessage {
  static_assert(Level >= 0 && Level <= 9);
  fmt::format_string<const Args&...> format;
  template <class Text>
  consteval TraceMessage(const Text& text) : format(text) {}  // NOLINT(google-explicit-constructor)
};

/// An argument that is a part of the message's text: a name that the program gives to an output, an input or
/// a stage's class. The descriptor's text has it in place of its placeholder.
struct TextPart {
  std::string_view text;
};

/// One component's access to the trace facility. A message above the component's threshold costs one
/// comparison; nothing is formatted.
class Tracer {
 public:
  explicit Tracer(std::string stage);
  ~Tracer();
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

  [[nodiscard]] bool enabled(int level) const { return level <= threshold_; }

  template <int Level, class... Args>
  void trace(TraceMessage<Level, std::type_identity_t<Args>...> message, const Args&... args) const {
    if (Level <= threshold_) [[unlikely]] {
      const fmt::string_view format = message.format;
      std::string_view text{format.data(), format.size()};
      if constexpr ((std::is_same_v<Args, TextPart> || ...)) {
        const TextPart* const parts[] = {partOf(args)...};
        text = withParts(text, parts);
      }
      write(TraceDescriptor{Level, text}, format, fmt::make_format_args(args...));
    }
  }

  [[nodiscard]] const std::string& stage() const { return stage_; }

 private:
  friend class TraceFacility;
  static const TextPart* partOf(const TextPart& part) { return &part; }
  template <class Arg>
  static const TextPart* partOf(const Arg& /*arg*/) {
    return nullptr;
  }
  /// The format with the parts that are not null in place of their placeholders; `parts` has one element per
  /// placeholder. The result is valid until the program ends.
  [[gnu::cold]] [[gnu::noinline]] static std::string_view withParts(std::string_view format,
                                                                    std::span<const TextPart* const> parts);
  [[gnu::cold]] [[gnu::noinline]] void write(const TraceDescriptor& descriptor, fmt::string_view format,
                                             fmt::format_args args) const;

  std::string stage_;
  int threshold_ = -1;
};

/// The process's trace facility. Nothing passes until a sink is added.
class TraceFacility {
 public:
  static TraceFacility& instance();

  /// The highest level that passes for stages that no filter names; 0 at first.
  void levelIs(int level);
  /// The highest level that passes for stages whose name contains `part`; the last matching filter decides.
  void stageLevelIs(std::string part, int level);
  void stageLevelDelAll();

  void sinkIs(const Ref<TraceSink>& sink);
  void sinkDel(const Ref<TraceSink>& sink);

  /// Whether any component traces its filters, level 6.
  static bool detailed() { return detailed_; }

 private:
  friend class Tracer;
  struct StageFilter {
    std::string part;
    int level;
  };
  void refresh();
  [[nodiscard]] int thresholdOf(std::string_view stage) const;

  int level_ = 0;
  std::vector<StageFilter> filters_;
  std::vector<Ref<TraceSink>> sinks_;
  std::vector<Tracer*> tracers_;
  static inline bool detailed_ = false;
};

/// Writes "level stage message" lines to a stream that it does not own, for example standard error.
class StreamTraceSink final : public TraceSink {
 public:
  explicit StreamTraceSink(std::FILE* stream) : stream_(stream) {}
  void write(const TraceRecord& record) override;

 private:
  std::FILE* stream_;
};

/// Writes lines to a file of its own.
class FileTraceSink final : public TraceSink {
 public:
  /// Creates or empties the file; throws std::runtime_error on failure.
  explicit FileTraceSink(const std::string& path);
  ~FileTraceSink() override;
  void write(const TraceRecord& record) override;

 private:
  std::FILE* file_;
};

/// Keeps the last messages in memory, for tests and tools.
class RingTraceSink final : public TraceSink {
 public:
  struct Message {
    int level;
    std::string stage;
    std::string text;    ///< with its arguments in place
    std::string format;  ///< the descriptor's text
  };
  explicit RingTraceSink(std::size_t capacity) : capacity_(capacity) {}
  void write(const TraceRecord& record) override;
  [[nodiscard]] const std::deque<Message>& messages() const { return messages_; }
  /// How many kept messages contain `part`.
  [[nodiscard]] std::size_t count(std::string_view part) const;
  void clear() { messages_.clear(); }

 private:
  std::size_t capacity_;
  std::deque<Message> messages_;
};

}  // namespace KilnEmServer

template <>
struct fmt::formatter<KilnEmServer::TextPart> : fmt::formatter<std::string_view> {
  template <class Context>
  auto format(const KilnEmServer::TextPart& part, Context& context) const {
    return fmt::formatter<std::string_view>::format(part.text, context);
  }
};
