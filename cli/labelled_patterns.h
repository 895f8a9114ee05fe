// The pattern file in one write: a sink that formats each pattern once, in the
// user's labels, into the section of its length, and writes the sections in
// length order as FILE.fp's text at the end. A writer owns its sections (in
// memory up to a budget, beyond it in an unnamed file beside the output), its
// text tables and the per-length counts.
#ifndef QUARLO_CLI_LABELLED_PATTERNS_H_
#define QUARLO_CLI_LABELLED_PATTERNS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "base/status.h"
#include "engine/pattern_sink.h"

namespace quarlo::cli {

using namespace quarlo::detail;

class LabelledPatternWriter : public PatternSink {
 public:
  // Bytes of section text kept in memory before full chunks go to the
  // unnamed file: small outputs never touch it.
  static constexpr size_t kDefaultBudget = size_t{1} << 20;

  LabelledPatternWriter() = default;
  LabelledPatternWriter(const LabelledPatternWriter&) = delete;
  LabelledPatternWriter& operator=(const LabelledPatternWriter&) = delete;
  ~LabelledPatternWriter() override;

  // Gets ready for the patterns of `ntrans` transactions whose items are
  // numbered into `labels` (kept by reference until finished). Spilled
  // sections go to an unnamed file beside `output`. False when the tables
  // cannot be had; nothing is reported (the caller takes another way).
  bool open(const std::vector<std::string>& labels, uint32_t ntrans, const std::string& output,
            size_t budget = kDefaultBudget);

  // Formats `p` into its length's section. A pattern that cannot be kept
  // (no memory, a failed spill, an item without a label) marks the writer
  // failed; later patterns are then dropped.
  void put(const Pattern& p) override;

  // True when some pattern was not kept: the sections are not the whole output.
  bool failed() const { return failed_; }

  // Patterns written, and per length (index L - 1) their number.
  uint64_t count() const { return total_; }
  const std::vector<uint32_t>& counts() const { return counts_; }

  // Creates `path` afresh and writes the sections into it, shortest length
  // first. An I/O status with errno and `path` when it cannot; what was
  // written is then left for the caller to remove.
  Status write_to(const std::string& path);

 private:
  // A full piece of one section: in memory (`text`) or in the spill file at
  // `offset`.
  struct Chunk {
    char* text;       // null once spilled
    uint64_t offset;  // in the spill file
    size_t size;      // bytes of text
    size_t cap;       // bytes allocated while in memory
  };
  // A section: its full chunks, the chunk being filled, and the id text
  // "L-N " of its next pattern, counted up in place.
  struct Section {
    std::vector<Chunk> full;
    char* buf = nullptr;
    size_t used = 0;
    size_t cap = 0;
    char id[32];
    uint8_t id_size = 0;  // 0 until the first pattern
  };

  char* room(uint32_t len, size_t need);
  bool retire(Section* s);
  bool spill(Chunk* c);
  char* put_counts(char* out, int32_t support);
  static char* put_id(char* out, uint32_t len, Section* s);
  char* put_labels(char* out, const Pattern& p);
  bool extend_level(uint32_t d, uint32_t x);
  bool write_sections(int fd);
  void release();

  const std::vector<std::string>* labels_ = nullptr;
  std::vector<Section> sections_;  // by length - 1
  std::vector<uint32_t> counts_;   // by length - 1
  std::string texts_;              // every label followed by a blank, then padding
  std::vector<size_t> starts_;     // where each label's text starts in texts_, and the end
  size_t longest_ = 0;             // longest label text
  std::vector<uint32_t> scratch_;  // the items of one pattern, sorted
  // The kept prefixes of the last pattern: level d holds its first d items
  // as found (raw_), sorted by number, and their labels' text. Levels are
  // laid out one after another (level d at d(d-1)/2 items, longest_ times
  // that in bytes). Patterns longer than kLevels, or runs with labels
  // longer than kLevelLabel, sort each pattern instead.
  static constexpr uint32_t kLevels = 64;
  static constexpr size_t kLevelLabel = 32;
  std::vector<uint32_t> raw_;
  std::vector<uint32_t> level_items_;
  std::vector<char> level_text_;
  std::vector<size_t> level_size_;  // empty: no levels
  uint32_t depth_ = 0;              // levels valid
  // "support percent " by support, in a small direct-mapped cache.
  struct CountText {
    int32_t support;
    uint8_t size;
    char text[27];
  };
  std::vector<CountText> count_texts_;
  uint32_t ntrans_ = 0;
  size_t budget_ = 0;
  size_t in_memory_ = 0;   // bytes of section buffers held
  char* spare_ = nullptr;  // a spilled chunk's buffer, kept for the next one
  std::string output_;  // the spill file goes beside it
  int spill_fd_ = -1;
  uint64_t spill_end_ = 0;
  uint64_t total_ = 0;
  bool failed_ = false;
};

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_LABELLED_PATTERNS_H_
