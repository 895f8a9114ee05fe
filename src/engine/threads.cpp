#include "engine/threads.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engine/engine_tables.h"

namespace quarlo::detail {

namespace {

// A worker's report lines and traces, kept until the run's thread passes them on.
class KeptReports : public Reporter {
 public:
  void line(std::string_view text) override { kept_.emplace_back(false, std::string(text)); }
  void trace(std::string_view text) override { kept_.emplace_back(true, std::string(text)); }
  void pass_on(Reporter* to) {
    for (const auto& [is_trace, text] : kept_) {
      if (is_trace) {
        to->trace(text);
      } else {
        to->line(text);
      }
    }
    kept_.clear();
  }

 private:
  std::vector<std::pair<bool, std::string>> kept_;
};

// The patterns of one top item in the order found: per pattern its length,
// its support and its items.
struct ItemOutput {
  std::vector<uint32_t> words;
  bool done = true;  // false while a worker mines the item
};

// Hands the buffered patterns of `w` to `sink` in order.
void replay(const std::vector<uint32_t>& w, PatternSink* sink) {
  replay_patterns(w.data(), w.size(), UINT32_MAX, sink);
}

// Where the run's sink is shared: the output at the front of the item order
// (whose patterns may go straight to the sink) and the lock of the sink.
struct SharedSink {
  PatternSink* sink = nullptr;
  std::mutex lock;
  std::atomic<const ItemOutput*> front{nullptr};
  // A worker whose buffer is full waits here for its item to come to the front.
  std::mutex wait_lock;
  std::condition_variable front_moved;
  bool stopping = false;  // under wait_lock

  void set_front(const ItemOutput* out) {
    {
      std::lock_guard<std::mutex> hold(wait_lock);
      front.store(out, std::memory_order_release);
    }
    front_moved.notify_all();
  }
  void stop() {
    {
      std::lock_guard<std::mutex> hold(wait_lock);
      stopping = true;
    }
    front_moved.notify_all();
  }
};

// Words an item may buffer before its worker waits to write them itself: the
// memory of a run stays bounded whatever the number of patterns.
constexpr size_t kMostBufferedWords = size_t{1} << 20;

// A worker's sink: buffers an item's patterns until the item is the front
// one, then passes what it holds and every later pattern of the item straight
// to the run's sink, holding its lock until the item is mined.
class WorkerSink : public PatternSink {
 public:
  explicit WorkerSink(SharedSink* shared) : shared_(shared) {}
  void start(ItemOutput* out) { out_ = out; }
  void put(const Pattern& p) override {
    if (!held_.owns_lock() && out_->words.size() > kMostBufferedWords) wait_for_front();
    if (!held_.owns_lock() && shared_->front.load(std::memory_order_acquire) == out_) {
      held_ = std::unique_lock<std::mutex>(shared_->lock);
      replay(out_->words, shared_->sink);
      std::vector<uint32_t>().swap(out_->words);
    }
    if (held_.owns_lock()) {
      shared_->sink->put(p);
    } else {
      append_pattern(&out_->words, p);
    }
  }
  void finish() {
    if (held_.owns_lock()) held_.unlock();
  }

 private:
  // Items are taken in order, so the front item is always being mined by a
  // worker that does not wait: this ends.
  void wait_for_front() {
    std::unique_lock<std::mutex> hold(shared_->wait_lock);
    shared_->front_moved.wait(hold, [this] {
      return shared_->stopping || shared_->front.load(std::memory_order_acquire) == out_;
    });
  }

 public:
 private:
  SharedSink* shared_;
  ItemOutput* out_ = nullptr;
  std::unique_lock<std::mutex> held_;
};

struct Task {
  ItemOutput* out;
  uint32_t item;
  int32_t support;
  NodeId chain;
};

struct Worker {
  explicit Worker(SharedSink* shared) : sink(shared) {}
  KeptReports rep;
  Engine e{&rep};
  WorkerSink sink;
  std::thread thread;
};

class ParallelTop : public TopLevelSplit, public PatternSink {
 public:
  ParallelTop(Engine& run, uint32_t threads) : run_(run), limit_(4 * threads) {
    workers_.resize(threads);
  }
  ~ParallelTop() override { stop(); }

  // Starts the workers. Out of memory after a trace.
  Status start() {
    for (std::unique_ptr<Worker>& w : workers_) {
      w = std::make_unique<Worker>(&shared_);
      if (Status s = prepare(&w->e); !s.ok()) {
        w->rep.pass_on(run_.rep);
        return s;
      }
    }
    for (std::unique_ptr<Worker>& w : workers_) {
      Worker* worker = w.get();
      worker->thread = std::thread([this, worker] { work(worker); });
    }
    return Status();
  }

  Status begin_item(Engine&, uint32_t) override {
    outputs_.push_back(std::make_unique<ItemOutput>());
    if (outputs_.size() == 1) shared_.set_front(outputs_.front().get());
    return Status();
  }

  // A one-item pattern from the run's thread; on a single-path tree (no items
  // begun) the run's thread mines alone and the patterns pass straight on.
  void put(const Pattern& p) override {
    if (outputs_.empty()) {
      shared_.sink->put(p);
      return;
    }
    append_pattern(&outputs_.back()->words, p);
  }

  Status conditional(Engine&, uint32_t item, int32_t support, NodeId chain) override {
    {
      std::unique_lock<std::mutex> lock(m_);
      outputs_.back()->done = false;
      queue_.push_back(Task{outputs_.back().get(), item, support, chain});
    }
    work_cv_.notify_one();
    return hand_over(limit_);
  }

  void take_tree(const FPTree& tree) override { tree_ = tree; }

  // Takes the run's sink; hands the patterns to it from now on.
  void take_sink(PatternSink* sink) { shared_.sink = sink; }

  // Waits for every item and hands the rest over (dropped when `ok` is
  // false), passes the workers' reports on and adds their counters to the
  // run's. The failure of a worker, if one failed.
  Status finish(bool ok) {
    if (ok) (void)hand_over(0);  // a worker's failure is status_
    stop();
    for (std::unique_ptr<Worker>& w : workers_) {
      if (w == nullptr) continue;
      w->rep.pass_on(run_.rep);
      MiningCounters& c = tables(run_).counters;
      c.single_paths += tables(w->e).counters.single_paths;
      c.marked_nodes += tables(w->e).counters.marked_nodes;
      c.pruned_nodes += tables(w->e).counters.pruned_nodes;
      c.cut_items += tables(w->e).counters.cut_items;
      c.conditional_trees += tables(w->e).counters.conditional_trees;
    }
    return status_;
  }

 private:
  // A worker's engine: the run's support table and limits, a pool, pruning
  // tables and pattern scratch of its own.
  Status prepare(Engine* w) {
    tables(*w).support = tables(run_).support;
    EngineSetup setup;
    setup.nitems = run_.setup().nitems;
    setup.min_size = run_.setup().min_size;
    setup.max_size = run_.setup().max_size;
    w->configure(setup);
    return prepare_scratch(w);
  }

  void work(Worker* w) {
    tables(w->e).sink = &w->sink;
    for (;;) {
      Task t;
      {
        std::unique_lock<std::mutex> lock(m_);
        work_cv_.wait(lock, [this] { return closing_ || !queue_.empty(); });
        if (queue_.empty()) return;
        t = queue_.front();
        queue_.pop_front();
      }
      Status status = mine(w, &t);
      {
        std::unique_lock<std::mutex> lock(m_);
        t.out->done = true;
        if (!status.ok() && status_.ok()) status_ = std::move(status);
      }
      done_cv_.notify_all();
    }
  }

  Status mine(Worker* w, Task* t) {
    w->sink.start(t->out);
    Status status;
    try {
      status = mine_top_item(w->e, tree_, t->item, t->support, t->chain);
    } catch (const std::bad_alloc&) {  // an item's output buffer could not grow
      w->rep.trace_errno("malloc");
      status = Status::out_of_memory();
    }
    w->sink.finish();
    return status;
  }

  // Hands the finished outputs at the front to the run's sink, in item order,
  // until at most `pending` items are left; waits for workers as needed.
  // The failure of a worker once one has failed.
  Status hand_over(size_t pending) {
    while (!outputs_.empty()) {
      {
        std::unique_lock<std::mutex> lock(m_);
        if (!status_.ok()) return status_;
        if (!outputs_.front()->done) {
          if (outputs_.size() <= pending) return Status();
          done_cv_.wait(lock, [this] { return outputs_.front()->done || !status_.ok(); });
          continue;
        }
      }
      std::unique_lock<std::mutex> held(shared_.lock);
      replay(outputs_.front()->words, shared_.sink);
      outputs_.pop_front();
      shared_.set_front(outputs_.empty() ? nullptr : outputs_.front().get());
    }
    std::unique_lock<std::mutex> lock(m_);
    return status_;
  }

  // Ends the workers (tasks still queued are dropped) and releases the tree.
  void stop() {
    {
      std::unique_lock<std::mutex> lock(m_);
      closing_ = true;
      queue_.clear();
    }
    work_cv_.notify_all();
    shared_.stop();
    for (std::unique_ptr<Worker>& w : workers_) {
      if (w != nullptr && w->thread.joinable()) w->thread.join();
    }
    free_fptree(&tree_);
  }

  Engine& run_;
  const size_t limit_;  // items begun but not handed over before the walk waits
  SharedSink shared_;
  FPTree tree_ = {};  // the top-level tree, read by the workers until they stop
  std::deque<std::unique_ptr<ItemOutput>> outputs_;  // run's thread only
  std::vector<std::unique_ptr<Worker>> workers_;
  std::mutex m_;  // guards the queue, the done flags, status_ and closing_
  std::condition_variable work_cv_;
  std::condition_variable done_cv_;
  std::deque<Task> queue_;
  bool closing_ = false;
  Status status_;  // the first failure of a worker
};

}  // namespace

Status mine_fptree_parallel(Engine& e, FPTree* tree, uint32_t threads) {
  ParallelTop top(e, threads);
  if (Status s = top.start(); !s.ok()) {
    free_fptree(tree);
    return s;
  }
  top.take_sink(tables(e).sink);
  PatternSink* own = tables(e).sink;
  tables(e).sink = &top;
  e.set_threads_split(&top);
  Status mined = mine_fptree(e, tree);
  Status finished = top.finish(mined.ok());
  tables(e).sink = own;
  e.set_threads_split(nullptr);
  if (!mined.ok()) return mined;
  if (!finished.ok()) {
    e.rep->tracef("%s(%u) : gen_freqpattern\n", sites::kRecursionMine.module,
                  sites::kRecursionMine.line);
  }
  return finished;
}

}  // namespace quarlo::detail
