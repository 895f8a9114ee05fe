#include "cli/binary_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <vector>

#include "base/io.h"
#include "base/sites.h"
#include "convert/records.h"

namespace quarlo::cli {

namespace {

uint32_t to_little_endian(uint32_t v) {
  if constexpr (std::endian::native == std::endian::big) return __builtin_bswap32(v);
  return v;
}

void raise_item_count(uint32_t item, uint32_t* item_count) {
  if (static_cast<int32_t>(item + 1) > static_cast<int32_t>(*item_count)) *item_count = item + 1;
}

// Reports "qr(line) Fatal error in stage()" and passes `s` on.
Status engine_fatal(Engine* e, const Site& site, const char* stage, Status s) {
  e->rep->printf("%s(%u) Fatal error in %s()", site.module, site.line, stage);
  return s;
}

// Appends the record of *items (normalized here) to `out`.
void put_record(std::vector<uint32_t>* items, OutBuffer* out, uint32_t* item_count) {
  normalize_record(items);
  const uint32_t n = to_little_endian(static_cast<uint32_t>(items->size()));
  out->put(&n, sizeof n);
  for (uint32_t item : *items) {
    raise_item_count(item, item_count);
    const uint32_t word = to_little_endian(item);
    out->put(&word, sizeof word);
  }
}

// Converts one line (or one piece of an over-long last line), reporting a
// failure.
Status convert_line(std::string_view line, std::vector<uint32_t>* items, OutBuffer* out,
                    uint32_t* item_count, Reporter* rep) {
  if (!collect_items(line, items)) {
    report_two_itemsets(rep);
    return Status::invalid_argument();
  }
  if (items->empty()) return Status();
  put_record(items, out, item_count);
  if (out->failed()) {
    errno = out->error();
    rep->perror("%s(%u) write(*, *, %u)", sites::kBinaryWrite.module, sites::kBinaryWrite.line, 4u);
    return Status::io(out->error(), {});
  }
  return Status();
}

// Converts every line of `in`, piece by piece.
Status convert_lines(int in, OutBuffer* out, uint32_t* item_count, Reporter* rep) {
  LineReader reader(in);
  LinePieces pieces;
  std::vector<uint32_t> items;
  std::string_view line;
  bool terminated = false;
  Status status;
  while (status.ok() && reader.next(&line, &terminated)) {
    pieces.each(line, terminated, [&](std::string_view part) {
      status = convert_line(part, &items, out, item_count, rep);
      return status.ok();
    });
  }
  return status;
}

// Reports a failed call on one of the two files, with its cause.
Status file_failed(Site site, const char* call, const char* path, Reporter* rep) {
  const int err = errno;
  rep->perror("%s(%u) %s", site.module, site.line, call);
  return Status::io(err, path);
}

}  // namespace

Status ttoqr(const char* input, const char* output, uint32_t* item_count, Reporter* rep) {
  *item_count = 0;
  int in = open(input, O_RDONLY);
  if (in < 0) {
    const int err = errno;
    rep->perror("%s(%u) fopen(%s, \"r\")", sites::kConvOpen.module, sites::kConvOpen.line, input);
    rep->printf("%s(%u) Fatal error in max_line_size(%s)", sites::kLongestLine.module,
                sites::kLongestLine.line, input);
    return Status::io(err, input);
  }
  int out_fd = create_fresh(output, 0666);
  if (out_fd < 0) {
    const std::string call = std::string("open(") + output + ")";
    Status status = file_failed(sites::kBinaryOpen, call.c_str(), output, rep);
    close(in);
    return status;
  }
  OutBuffer out(out_fd);
  Status status = convert_lines(in, &out, item_count, rep);
  if (out.flush() != 0 && status.ok()) {
    status = file_failed(sites::kBinaryWrite, "write(*, *, 4)", output, rep);
  }
  if (close(in) != 0 && status.ok())
    status = file_failed(sites::kConvClose, "fclose()", input, rep);
  if (close(out_fd) != 0 && status.ok()) {
    status = file_failed(sites::kBinaryClose, "close()", output, rep);
  }
  return status;
}

namespace {

// Traces a failed call at `site` ("call: <errno text>", "module(line) : call").
Status io_failure(Reporter* rep, const char* call, const Site& site, const char* path) {
  const int error = errno;
  rep->trace_errno(call);
  rep->tracef("%s(%u) : %s\n", site.module, site.line, call);
  return Status::io(error, path);
}

}  // namespace

Status load_trandb(TranPool* pool, const char* path, TranBuf* buf) {
  int fd = open(path, O_RDONLY);
  if (fd < 0) return io_failure(pool->rep, "open", sites::kBinaryLoadOpen, path);
  uint32_t filled = 0;
  for (;;) {
    char* at = reinterpret_cast<char*>(buf->data) + filled;
    ssize_t got = read(fd, at, kTranBlockBytes);
    if (got < 0) {
      Status s = io_failure(pool->rep, "read", sites::kBinaryLoadRead, path);
      close(fd);
      return s;
    }
    if (got == 0) break;
    filled += static_cast<uint32_t>(got);
    if (got == kTranBlockBytes || got + 4 > kTranBlockBytes) {
      if (Status s = grow_buf(pool, buf, sites::kBinaryLoadGrow); !s.ok()) {
        close(fd);
        return s;
      }
    }
    if (got < kTranBlockBytes) break;
  }
  close(fd);
  buf->data[filled / 4] = 0;
  return Status();
}

Status find_frequent_patterns(Engine* e, const char* qr_file, const SupportSpec& spec,
                              EngineClient* client) {
  if (Status s = init_buf_pool(&e->pool(), e->setup().nitems); !s.ok()) {
    return engine_fatal(e, sites::kEngineInitPool, "init_buf_pool", std::move(s));
  }
  TranBuf db = {};
  if (Status s = init_buf(&e->pool(), &db); !s.ok()) {
    return engine_fatal(e, sites::kEngineInitBuf, "init_buf", std::move(s));
  }
  if (Status s = load_trandb(&e->pool(), qr_file, &db); !s.ok()) {
    free_buf(&e->pool(), &db);
    return engine_fatal(e, sites::kEngineLoad, "load_trandb", std::move(s));
  }
  return mine_database(e, &db, spec, nullptr, client);
}

}  // namespace quarlo::cli
