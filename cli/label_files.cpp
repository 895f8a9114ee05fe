#include "cli/label_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/io.h"
#include "base/tokens.h"
#include "cli/pattern_ids.h"

namespace quarlo::cli {

namespace {

// Opens `input` for reading and creates or truncates `output` (mode 0664
// before the umask); both are attempted. False, with neither left open, when
// either fails.
bool open_pair(const char* input, const char* output, int* in, int* out) {
  *in = open(input, O_RDONLY);
  *out = create_fresh(output, 0664);
  if (*in >= 0 && *out >= 0) return true;
  if (*in >= 0) close(*in);
  if (*out >= 0) close(*out);
  return false;
}

}  // namespace

Status convert_file(LabelTable* labels, const char* input, const char* output) {
  int in = -1;
  int out_fd = -1;
  if (!open_pair(input, output, &in, &out_fd)) return Status::io(errno, output);
  bool written = false;
  {
    LineReader reader(in);
    OutBuffer out(out_fd);
    std::string_view line;
    while (reader.next(&line)) {
      labels->convert_line(line, &out);
      out.put_char('\n');
    }
    written = out.flush() == 0;
  }
  close(in);
  close(out_fd);
  return written ? Status() : Status::io(errno, output);
}

Status r_convert(const LabelTable& labels, const char* input, const char* output, unsigned skip) {
  const std::vector<std::string>& label_list_ = labels.labels();
  int in = -1;
  int out_fd = -1;
  if (!open_pair(input, output, &in, &out_fd)) return Status::io(errno, output);
  bool ok = true;
  {
    LineReader reader(in);
    OutBuffer out(out_fd);
    std::string_view line;
    while (ok && reader.next(&line)) {
      unsigned index = 0;
      for (std::string_view t = next_token(&line); ok && !t.empty(); t = next_token(&line)) {
        uint32_t n = 0;
        if (index++ < skip || labels.is_reserved(t)) {
          out.put(t.data(), t.size());
        } else if (read_number(t, &n) && n < label_list_.size()) {
          out.put(label_list_[n].data(), label_list_[n].size());
        } else {
          ok = false;
          break;
        }
        out.put_char(' ');
      }
      if (ok) out.put_char('\n');
    }
    if (out.flush() != 0) ok = false;
  }
  close(in);
  close(out_fd);
  return ok ? Status() : Status::io(errno, output);
}

namespace {

// The sections of a grouped output file: per length a buffer that is written
// at the section's next offset whenever it fills.
class SectionWriter {
 public:
  SectionWriter(int fd, const std::vector<uint64_t>& bytes) : fd_(fd), bytes_(bytes) {
    const size_t n = bytes.size();
    const size_t room = std::max<size_t>(size_t{4} << 10, (size_t{64} << 20) / (n > 0 ? n : 1));
    cap_ = std::min<size_t>(room, size_t{1} << 20);
    next_.resize(n, 0);
    done_.resize(n, 0);
    used_.resize(n, 0);
    bufs_.resize(n);
    for (size_t k = 1; k < n; ++k) next_[k] = next_[k - 1] + bytes[k - 1];
  }
  bool has(uint32_t len) const { return len >= 1 && len <= bytes_.size() && bytes_[len - 1] > 0; }
  // Appends n bytes to the section of length len; false when a write failed.
  bool put(uint32_t len, const char* text, size_t n) {
    const size_t k = len - 1;
    if (bufs_[k] == nullptr) bufs_[k] = std::make_unique_for_overwrite<char[]>(cap_);  // never read unwritten
    while (n > 0) {
      if (used_[k] == cap_ && !write(k)) return false;
      const size_t step = std::min(n, cap_ - used_[k]);
      memcpy(bufs_[k].get() + used_[k], text, step);
      used_[k] += step;
      text += step;
      n -= step;
    }
    return true;
  }
  // Writes what is left; true when every section came out at its size.
  bool finish() {
    for (size_t k = 0; k < bufs_.size(); ++k) {
      if (!write(k) || done_[k] != bytes_[k]) return false;
    }
    return true;
  }

 private:
  bool write(size_t k) {
    const size_t n = used_[k];
    if (done_[k] + n > bytes_[k]) return false;
    for (size_t at = 0; at < n;) {
      const ssize_t w = pwrite(fd_, bufs_[k].get() + at, n - at, static_cast<off_t>(next_[k] + at));
      if (w <= 0) return false;
      at += static_cast<size_t>(w);
    }
    next_[k] += n;
    done_[k] += n;
    used_[k] = 0;
    return true;
  }

  int fd_;
  const std::vector<uint64_t>& bytes_;
  size_t cap_;
  std::vector<uint64_t> next_;  // by length: where its next bytes go
  std::vector<uint64_t> done_;  // by length: bytes written
  std::vector<size_t> used_;    // by length: bytes buffered
  std::vector<std::unique_ptr<char[]>> bufs_;
};

// Each label followed by a blank, one after another, and where each starts.
struct LabelTexts {
  explicit LabelTexts(const std::vector<std::string>& labels) {
    start.reserve(labels.size() + 1);
    for (const std::string& label : labels) {
      start.push_back(text.size());
      text += label;
      text += ' ';
    }
    start.push_back(text.size());
  }
  std::string text;
  std::vector<size_t> start;
};

// The length of a line "L-N ...", or 0.
uint32_t length_of_line(std::string_view line) {
  uint32_t l = 0;
  return read_id_length(line, &l) && l < 0xffffffffu ? l + 1 : 0;
}

// Where the items of "L-N support percent items" start (after the third
// blank), or npos.
size_t items_start(std::string_view line) {
  size_t at = 0;
  for (int blanks = 0; blanks < 3; ++blanks) {
    at = line.find(' ', at);
    if (at == std::string_view::npos) return at;
    ++at;
  }
  return at;
}

}  // namespace

Status r_convert_sections(const LabelTable& labels, const char* input, const char* output,
                          const std::vector<uint64_t>& bytes) {
  const std::vector<std::string>& label_list_ = labels.labels();
  int in = -1;
  int out_fd = -1;
  if (!open_pair(input, output, &in, &out_fd)) return Status::io(errno, output);
  bool ok = true;
  {
    const LabelTexts texts(label_list_);
    SectionWriter sections(out_fd, bytes);
    LineReader reader(in);
    std::string_view line;
    std::string out;
    while (ok && reader.next(&line)) {
      const uint32_t len = length_of_line(line);
      const size_t items = items_start(line);
      ok = sections.has(len) && items != std::string_view::npos && items < line.size();
      out.assign(line.data(), ok ? items : 0);
      // Item numbers are parsed in place rather than by read_number: this is
      // the run's hottest loop, and the writer's numbers need no "-1" case.
      for (size_t at = items; ok && at <= line.size(); ++at) {
        uint64_t n = 0;
        const size_t first = at;
        for (; at < line.size() && line[at] != ' '; ++at) {
          const unsigned digit = static_cast<unsigned char>(line[at]) - '0';
          ok = ok && digit < 10 && at - first < 10;
          n = 10 * n + digit;
        }
        ok = ok && at > first && n < label_list_.size() && (line[first] != '0' || at - first == 1);
        if (ok) out.append(texts.text, texts.start[n], texts.start[n + 1] - texts.start[n]);
      }
      out.push_back('\n');
      ok = ok && sections.put(len, out.data(), out.size());
    }
    ok = ok && sections.finish();
  }
  close(in);
  if (close(out_fd) != 0) ok = false;
  return ok ? Status() : Status::io(errno, output);
}

}  // namespace quarlo::cli
