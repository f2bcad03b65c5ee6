#include "kiln/runtime/trace/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <unordered_set>
#include <utility>

namespace KilnEmServer {
namespace {

/// A line that cannot be written is lost: a stage that traces must not be disturbed by a full disk.
void writeLine(std::FILE* stream, const TraceRecord& record) {
  fmt::memory_buffer line;
  fmt::format_to(std::back_inserter(line), "{} {} {}\n", record.descriptor.level, record.stage,
                 record.message);
  std::fwrite(line.data(), 1, line.size(), stream);
}

}  // namespace

Tracer::Tracer(std::string stage) : stage_(std::move(stage)) {
  TraceFacility& facility = TraceFacility::instance();
  facility.tracers_.push_back(this);
  threshold_ = facility.thresholdOf(stage_);
  TraceFacility::detailed_ |= enabled(6);
}

Tracer::~Tracer() {
  std::erase(TraceFacility::instance().tracers_, this);
}

// The texts are few: one per name that is part of a message.
std::string_view Tracer::withParts(std::string_view format, std::span<const TextPart* const> parts) {
  static std::unordered_set<std::string> texts;
  std::string text;
  for (const TextPart* part : parts) {
    const std::size_t begin = format.find('{');
    const std::size_t end = format.find('}', begin) + 1;
    text += format.substr(0, begin);
    text += part == nullptr ? format.substr(begin, end - begin) : part->text;
    format.remove_prefix(end);
  }
  text += format;
  return *texts.insert(std::move(text)).first;
}

void Tracer::write(const TraceDescriptor& descriptor, fmt::string_view format, fmt::format_args args) const {
  fmt::memory_buffer buffer;
  for (const auto& sink : TraceFacility::instance().sinks_) {
    if (!sink->wants(descriptor)) continue;
    if (buffer.size() == 0) {
      fmt::vformat_to(std::back_inserter(buffer), format, args);
    }
    sink->write({descriptor, stage_, {buffer.data(), buffer.size()}});
  }
}

TraceFacility& TraceFacility::instance() {
  static TraceFacility facility;
  return facility;
}

void TraceFacility::levelIs(int level) {
  level_ = level;
  refresh();
}

void TraceFacility::stageLevelIs(std::string part, int level) {
  filters_.push_back({std::move(part), level});
  refresh();
}

void TraceFacility::stageLevelDelAll() {
  filters_.clear();
  refresh();
}

void TraceFacility::sinkIs(const Ref<TraceSink>& sink) {
  sinks_.push_back(sink);
  refresh();
}

void TraceFacility::sinkDel(const Ref<TraceSink>& sink) {
  std::erase(sinks_, sink);
  refresh();
}

void TraceFacility::refresh() {
  detailed_ = false;
  for (Tracer* tracer : tracers_) {
    tracer->threshold_ = thresholdOf(tracer->stage_);
    detailed_ |= tracer->enabled(6);
  }
}

int TraceFacility::thresholdOf(std::string_view stage) const {
  if (sinks_.empty()) return -1;
  int level = level_;
  for (const StageFilter& filter : filters_) {
    if (stage.find(filter.part) != std::string_view::npos) level = filter.level;
  }
  return level;
}

void StreamTraceSink::write(const TraceRecord& record) {
  writeLine(stream_, record);
}

FileTraceSink::FileTraceSink(const std::string& path) : file_(std::fopen(path.c_str(), "w")) {
  if (file_ == nullptr) {
    throw std::runtime_error(fmt::format("{}: cannot be written: {}", path, std::strerror(errno)));
  }
}

FileTraceSink::~FileTraceSink() {
  std::fclose(file_);
}

void FileTraceSink::write(const TraceRecord& record) {
  writeLine(file_, record);
}

void RingTraceSink::write(const TraceRecord& record) {
  if (capacity_ == 0) return;
  if (messages_.size() == capacity_) messages_.pop_front();
  messages_.push_back({record.descriptor.level, std::string(record.stage), std::string(record.message),
                       std::string(record.descriptor.text)});
}

std::size_t RingTraceSink::count(std::string_view part) const {
  return static_cast<std::size_t>(
      std::count_if(messages_.begin(), messages_.end(),
                    [&](const Message& message) { return message.text.find(part) != std::string::npos; }));
}

}  // namespace KilnEmServer
