#include "cli/maximal_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "base/io.h"
#include "base/sites.h"
#include "base/tokens.h"
#include "cli/pattern_ids.h"

namespace quarlo::cli {

using namespace quarlo::detail;

namespace {

// Source lines quoted in the reports, fixed so that the logs of every build agree.

// FNV-1a over the bytes, then a final mix so that both the low bits (slot
// index) and the high bits (tag) depend on every byte.
uint64_t hash_text(std::string_view text) {
  uint64_t h = 14695981039346656037ull;
  for (unsigned char c : text) h = (h ^ c) * 1099511628211ull;
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  h ^= h >> 33;
  return h;
}

bool is_comment(std::string_view line) { return !line.empty() && line.front() == '#'; }

// Bitmaps are kept for lengths below this; longer ids go to the text table.
constexpr uint32_t kMaxBitmapLength = 4096;
// Bitmap words allowed: this many plus one per insertion (8 bytes for an id
// that takes at least 4 bytes of the PC list), so odd numbering cannot blow
// memory up; ids beyond it go to the text table.
constexpr size_t kFreeBitmapWords = size_t{1} << 14;

}  // namespace

bool IdSet::contains(std::string_view id) const {
  uint32_t len = 0, n = 0;
  if (read_id(id, &len, &n) && has_bit(len, n)) return true;
  return text_count_ != 0 && text_contains(id);
}

bool IdSet::has_bit(uint32_t len, uint32_t n) const {
  return len < bits_.size() && n / 64 < bits_[len].size() &&
         (bits_[len][n / 64] >> (n % 64) & 1) != 0;
}

void IdSet::insert(std::string_view id) {
  ++inserts_;
  uint32_t len = 0, n = 0;
  const bool plain = read_id(id, &len, &n);
  if ((plain && has_bit(len, n)) || (text_count_ != 0 && text_contains(id))) return;
  if (!(plain && set_bit(len, n))) text_insert(id);
  ++count_;
}

// Sets bit n of the bitmap for len, growing it by doubling within the budget.
// False, with nothing changed, when the bit does not fit.
bool IdSet::set_bit(uint32_t len, uint32_t n) {
  if (len >= kMaxBitmapLength) return false;
  if (len >= bits_.size()) bits_.resize(len + 1);
  std::vector<uint64_t>& words = bits_[len];
  const size_t need = size_t{n} / 64 + 1;
  if (need > words.size()) {
    const size_t grown = std::max(need, words.size() * 2);
    if (bit_words_ + grown - words.size() > kFreeBitmapWords + inserts_) return false;
    bit_words_ += grown - words.size();
    words.resize(grown, 0);
  }
  words[n / 64] |= uint64_t{1} << (n % 64);
  return true;
}

bool IdSet::text_contains(std::string_view id) const {
  return slots_[find_slot(id, hash_text(id))].offset != kEmpty;
}

void IdSet::text_insert(std::string_view id) {
  if ((text_count_ + 1) * 4 > slots_.size() * 3) grow();
  const uint64_t hash = hash_text(id);
  Slot& s = slots_[find_slot(id, hash)];
  s.offset = arena_.size();
  s.length = static_cast<uint32_t>(id.size());
  s.tag = static_cast<uint32_t>(hash >> 32);
  arena_.append(id);
  ++text_count_;
}

size_t IdSet::find_slot(std::string_view id, uint64_t hash) const {
  const size_t mask = slots_.size() - 1;
  const uint32_t tag = static_cast<uint32_t>(hash >> 32);
  for (size_t i = hash & mask;; i = (i + 1) & mask) {
    const Slot& s = slots_[i];
    if (s.offset == kEmpty) return i;
    if (s.tag == tag && s.length == id.size() &&
        arena_.compare(s.offset, s.length, id.data(), id.size()) == 0) {
      return i;
    }
  }
}

// Doubles the text table (at least 64 slots) and re-seats every id.
void IdSet::grow() {
  std::vector<Slot> old;
  old.swap(slots_);
  slots_.assign(old.empty() ? 64 : old.size() * 2, Slot{kEmpty, 0, 0});
  for (const Slot& s : old) {
    if (s.offset == kEmpty) continue;
    std::string_view id(arena_.data() + s.offset, s.length);
    slots_[find_slot(id, hash_text(id))] = s;
  }
}

Status create_unmaximal_set(std::unique_ptr<IdSet>* ids, Reporter* rep) {
  ids->reset(new (std::nothrow) IdSet);
  if (*ids != nullptr) return Status();
  rep->perror("%s(%u) new(%u)", sites::kMaximalNew.module, sites::kMaximalNew.line,
              static_cast<unsigned>(sizeof(IdSet)));
  return Status::out_of_memory();
}

void load_unmaximal_ids(IdSet* ids, const char* pc_file) {
  const int in = open(pc_file, O_RDONLY);
  LineReader lines(in);
  std::string_view line;
  while (lines.next(&line)) {
    if (is_comment(line)) continue;
    next_token(&line);  // the listing pattern's own id
    for (std::string_view id = next_token(&line); !id.empty(); id = next_token(&line)) {
      ids->insert(id);
    }
  }
  if (in >= 0) close(in);
}

namespace {

// Copies the kept records of `in` to `out` (-1: nothing to write to), telling
// through *written whether every byte went out; errno then holds the cause.
uint32_t copy_records(const IdSet& ids, int in, int out_fd, bool* written) {
  uint32_t kept = 0;
  LineReader lines(in);
  OutBuffer out(out_fd);
  std::string_view line;
  while (lines.next(&line)) {
    std::string_view rest = line;
    const bool comment = is_comment(line);
    if (!comment && ids.contains(next_token(&rest))) continue;
    if (out_fd >= 0) {
      out.put(line.data(), line.size());
      out.put_char('\n');
    }
    if (!comment) ++kept;
  }
  *written = out_fd < 0 || out.flush() == 0;
  return kept;
}

// Reports a failed removal from `file`: with the cause for a file that must
// be pruned, plain for one whose result nobody reads.
Status removal_failed(const char* file, bool strict, Reporter* rep) {
  const int err = errno;
  const Site site = sites::kMaximalRemove;
  if (strict) {
    rep->perror("%s(%u) Failed to remove unmaximal records from %s", site.module, site.line, file);
  } else {
    rep->printf("%s(%u) Failed to remove unmaximal records from %s", site.module, site.line, file);
  }
  return Status::io(err, file);
}

}  // namespace

Status remove_unmaximal_records(const IdSet& ids, const char* file, bool strict, uint32_t* kept,
                                Reporter* rep) {
  const std::string tmp = std::string(file) + ".tmp";
  *kept = 0;
  const int in = open(file, O_RDONLY);
  if (in < 0 && strict) return removal_failed(file, strict, rep);
  const int out_fd = create_fresh(tmp.c_str(), 0664);
  bool written = false;
  *kept = copy_records(ids, in, out_fd, &written);
  if (in >= 0) close(in);
  if (out_fd < 0 || (close(out_fd) != 0 && written)) written = false;
  if (!written) {  // a full disk: keep every record rather than lose some
    rep->perror("%s(%u) Failed to write %s", sites::kMaximalWriteTmp.module,
                sites::kMaximalWriteTmp.line, tmp.c_str());
    return removal_failed(file, strict, rep);
  }
  if (rename(tmp.c_str(), file) != 0) {
    rep->perror("%s(%u) rename(%s, %s) failed", sites::kMaximalRename.module,
                sites::kMaximalRename.line, tmp.c_str(), file);
    return removal_failed(file, strict, rep);
  }
  return Status();
}

}  // namespace quarlo::cli
