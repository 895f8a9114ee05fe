// The one error convention inside the library: an operation that can fail
// returns a Status and its caller checks it at once (`if (!s.ok()) return s;`).
// Success costs a null pointer; a failure carries its kind, the errno of the
// call that failed and the file it concerns. The words for the user went to
// the run's Reporter where the failure happened. No state.
#ifndef QUARLO_BASE_STATUS_H_
#define QUARLO_BASE_STATUS_H_

#include <memory>
#include <string>
#include <utility>

namespace quarlo::detail {

class [[nodiscard]] Status {
 public:
  enum class Code {
    kOk,
    kInvalidArgument,  // an option or an input that cannot be mined as given
    kIo,               // a file that cannot be read or written
    kOutOfMemory,      // memory ran short
    kOutOfTreeNodes,   // memory ran short for a block of tree nodes: the program
                       // ends the run on it at once, with the tree builder's
                       // trace as its only report
  };

  Status() noexcept = default;
  static Status invalid_argument(std::string message = {}) {
    return Status(Code::kInvalidArgument, 0, {}, std::move(message));
  }
  // `error_number` is the errno of the failed call (0 when there is none).
  static Status io(int error_number, std::string path, std::string message = {}) {
    return Status(Code::kIo, error_number, std::move(path), std::move(message));
  }
  static Status out_of_memory(std::string message = {}) {
    return Status(Code::kOutOfMemory, 0, {}, std::move(message));
  }
  static Status out_of_tree_nodes() { return Status(Code::kOutOfTreeNodes, 0, {}, {}); }

  Status(Status&&) noexcept = default;
  Status& operator=(Status&&) noexcept = default;
  Status(const Status& s) : rep_(s.rep_ ? std::make_unique<Rep>(*s.rep_) : nullptr) {}
  Status& operator=(const Status& s) {
    if (this != &s) rep_ = s.rep_ ? std::make_unique<Rep>(*s.rep_) : nullptr;
    return *this;
  }

  bool ok() const { return rep_ == nullptr; }
  Code code() const { return rep_ ? rep_->code : Code::kOk; }
  // Either kind of memory shortage.
  bool is_out_of_memory() const {
    return code() == Code::kOutOfMemory || code() == Code::kOutOfTreeNodes;
  }
  int error_number() const { return rep_ ? rep_->error_number : 0; }
  // The file a failure concerns, or empty.
  const std::string& path() const { return rep_ ? rep_->path : empty(); }
  // A short text of the failure's own, or empty (the reports carry the rest).
  const std::string& message() const { return rep_ ? rep_->message : empty(); }

 private:
  struct Rep {
    Code code;
    int error_number;
    std::string path;
    std::string message;
  };
  Status(Code code, int error_number, std::string path, std::string message)
      : rep_(std::make_unique<Rep>(Rep{code, error_number, std::move(path), std::move(message)})) {}
  static const std::string& empty() {
    static const std::string none;
    return none;
  }

  std::unique_ptr<Rep> rep_;
};

}  // namespace quarlo::detail

#endif  // QUARLO_BASE_STATUS_H_
