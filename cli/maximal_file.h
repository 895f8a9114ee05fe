// Maximal-pattern pruning on the text of the files: a pattern whose id stands as
// a parent on some line of the parent-children list is dropped from a record
// file, which is rewritten through "FILE.tmp" and rename. The caller owns the
// set of ids, made by create_unmaximal_set.
#ifndef QUARLO_CLI_MAXIMAL_FILE_H_
#define QUARLO_CLI_MAXIMAL_FILE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/report.h"
#include "base/status.h"

namespace quarlo::cli {

// The program is written against the library's internals.
using namespace quarlo::detail;

// A set of id texts, matched as whole byte strings. Only membership is ever
// asked. An id spelled "L-N" the way the PC list writes it (decimal numbers
// without leading zeros) is kept as bit N of a bitmap for L, so the millions
// of parent ids of a large run cost a bit each and are checked without a hash;
// any other text, and ids whose bitmaps would outgrow a budget tied to the
// number of insertions, go to a flat open-addressing table over a text arena.
class IdSet {
 public:
  bool contains(std::string_view id) const;
  // Adds `id` unless already present.
  void insert(std::string_view id);
  size_t size() const { return count_; }

 private:
  struct Slot {
    uint64_t offset;  // start of the text in arena_; kEmpty when unused
    uint32_t length;
    uint32_t tag;  // high bits of the hash, checked before the text
  };
  static constexpr uint64_t kEmpty = ~uint64_t{0};

  bool has_bit(uint32_t len, uint32_t n) const;
  bool set_bit(uint32_t len, uint32_t n);
  bool text_contains(std::string_view id) const;
  void text_insert(std::string_view id);
  size_t find_slot(std::string_view id, uint64_t hash) const;
  void grow();

  std::vector<std::vector<uint64_t>> bits_;  // index: the L of "L-N"
  size_t bit_words_ = 0;                     // words held by bits_
  size_t inserts_ = 0;                       // calls of insert, for the budget
  std::string arena_;
  std::vector<Slot> slots_;
  size_t text_count_ = 0;
  size_t count_ = 0;
};

// Creates the empty set of the ids of the patterns that some other pattern
// lists as a parent. Fails (out of memory) after a report.
Status create_unmaximal_set(std::unique_ptr<IdSet>* ids, Reporter* rep);

// Adds every id after the first on each line of the parent-children list
// `pc_file`; lines starting with "#" are skipped. An unreadable file adds
// nothing and is not reported.
void load_unmaximal_ids(IdSet* ids, const char* pc_file);

// Writes the records of `file` whose first token is not in `ids` to
// "file.tmp" (made afresh, mode 0664 before the umask; lines starting with "#"
// are copied and not counted; every line written ends with a newline), then
// renames it over `file`, and sets *kept to the number of records kept.
// Fails (an I/O status) after a report when the temporary file cannot be
// made or written whole or the rename fails; `file` then keeps all its
// records. A `file` that cannot be read fails when `strict`, otherwise it
// counts as empty; a strict failure's last report line carries its cause.
Status remove_unmaximal_records(const IdSet& ids, const char* file, bool strict, uint32_t* kept,
                                Reporter* rep);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_MAXIMAL_FILE_H_
