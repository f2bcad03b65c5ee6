// Texts that are produced piece by piece: a long one needs little time and memory per turn.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kiln/agent/io/JsonValue.h"

namespace KilnAgent {

/// Produces a text from its begin to its end. Its sources may change between two pieces.
class TextSource {
 public:
  virtual ~TextSource() = default;
  /// Appends the next piece, with about a tenth of a millisecond of work. Returns whether there is another
  /// one.
  virtual bool next(std::string& out) = 0;
};

/// A complete text.
class ReadyText final : public TextSource {
 public:
  explicit ReadyText(std::string text) : text_(std::move(text)) {}
  bool next(std::string& out) override {
    out += text_;
    return false;
  }

 private:
  std::string text_;
};

/// A JSON text as a sequence of parts, each of which may need several pieces.
class JsonSource : public TextSource {
 public:
  /// Number of rows in a piece.
  static constexpr int kRowsPerPiece = 16;

  bool next(std::string& out) final {
    if (at_ < parts_.size() && !parts_[at_](out)) ++at_;
    return at_ < parts_.size();
  }

 protected:
  /// Appends to the text; returns whether it must be called again before the next part.
  using Part = std::function<bool(std::string& out)>;

  /// `lineEnd` separates the rows: a line end, or nothing.
  explicit JsonSource(std::string lineEnd) : lineEnd_(std::move(lineEnd)) {}

  void addPart(Part part) { parts_.push_back(std::move(part)); }
  /// A part of one piece, which is produced when its turn comes.
  void addText(std::function<std::string()> text) {
    addPart([text = std::move(text)](std::string& out) {
      out += text();
      return false;
    });
  }
  /// The rows of the parts between beginArray and the array's end form one array.
  void beginArray() {
    addPart([this](std::string& out) {
      out += '[';
      firstRow_ = true;
      return false;
    });
  }
  void endArray() {
    addPart([this](std::string& out) {
      out += firstRow_ ? "]" : lineEnd_ + "]";
      return false;
    });
  }
  void addRow(std::string& out, const Json& row) {
    out += (std::exchange(firstRow_, false) ? "" : ",") + lineEnd_;
    out += row.dump();
  }
  [[nodiscard]] const std::string& lineEnd() const { return lineEnd_; }

 private:
  std::string lineEnd_;
  std::vector<Part> parts_;
  std::size_t at_ = 0;
  bool firstRow_ = true;
};

/// The whole text.
inline std::string wholeText(TextSource& source) {
  std::string text;
  while (source.next(text)) {
  }
  return text;
}

}  // namespace KilnAgent
