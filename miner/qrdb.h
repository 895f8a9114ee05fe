// Transaction store of the mining engine: growable buffers of encoded records
// (plain "n items", weighted "-w n items", end word 0), the readers that unpack
// one record into the shared current transaction, and two reusable 1 MiB blocks.
// Owns the process-wide block pool, the current transaction and the input
// statistics (largest and average record length).
#ifndef QUARLO_MINER_QRDB_H_
#define QUARLO_MINER_QRDB_H_

#include <cstdint>

// Size of a pool block, of a buffer's first block and of every growth step.
constexpr uint32_t kTranBlockBytes = 1048576;

// A database of encoded records followed by one end word 0.
struct TranBuf {
  uint32_t capacity;  // bytes allocated for data
  uint32_t position;  // byte offset: write end while appending, read cursor while reading
  int32_t* data;
};

// One item of the current transaction; `aux` is scratch for the tree builder.
struct TranSlot {
  uint32_t item;
  uint32_t aux;
};

// The unpacked current transaction: n items in slot[0 .. n-1].
struct CurTran {
  int32_t n;
  TranSlot* slot;  // room for as many items as there are distinct items
};

// Input statistics, raised/overwritten by the counting pass of
// create_freqitemlist: largest n of any record, mean n (weighted by the
// record's weight, divided by the number of records).
extern uint32_t tran_max_items;
extern double tran_avg_items;

// Allocates the two pool blocks (once) and the current transaction for
// `nitems` items. Returns 0, or -1 after a diagnostic on stderr.
int init_buf_pool(uint32_t nitems);

// Gives `buf` a free pool block, or a new 1 MiB block when both are lent out.
// Afterwards capacity is 1048576, position 0 and the first word 0.
// Returns 0, or -1 after a diagnostic on stderr.
int init_buf(TranBuf* buf, uint32_t nitems);

// Returns a pool block to the pool, or releases a block that is not the pool's.
void free_buf(TranBuf* buf);

// Reads the binary transaction file at `path` whole into `buf` (made by
// init_buf) and terminates it with the end word. Returns 0, or -1 after a
// diagnostic on stderr.
int load_trandb(const char* path, TranBuf* buf);

// Appends one record of `n` items with weight `w` at the write end (nothing
// for w == 0) and keeps the buffer terminated. Returns 0, or -1 after a
// diagnostic on stderr when the buffer cannot grow.
int insert_tran_to_trandb(TranBuf* buf, const uint32_t* items, uint32_t n, uint32_t w);

// Unpacks the record at the read cursor into the current transaction, points
// *tran at it and moves the cursor past it. Returns the weight, or 0 at the
// end word (cursor unchanged).
int32_t read_tran(TranBuf* buf, CurTran** tran);

// As read_tran for the record at byte `offset`; the cursor is not moved.
int32_t read_tran_at(const TranBuf* buf, CurTran** tran, uint32_t offset);

// Rewinds `buf` and sums the weights of all its records into *ntrans.
void count_tran(TranBuf* buf, uint32_t* ntrans);

#endif  // QUARLO_MINER_QRDB_H_
