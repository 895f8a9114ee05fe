// Where each report comes from, as the program's messages print it:
// "module(line) text". The module names and line numbers are part of the
// program's texts (logs of every build agree on them), so every report takes
// its site from this one table and code can move without changing a byte of
// any message. Constants only.
#ifndef QUARLO_BASE_SITES_H_
#define QUARLO_BASE_SITES_H_

namespace quarlo::detail {

struct Site {
  const char* module;
  unsigned line;
};

namespace sites {

// The run's driver.
inline constexpr Site kConvert{"quarlo", 78};        // Fatal error in r_convert (forward)
inline constexpr Site kPrune{"quarlo", 90};          // Failed to prune unmaximal patterns
inline constexpr Site kLattice{"quarlo", 106};       // Failed to generate lattice data
inline constexpr Site kMine{"quarlo", 127};          // Failed to find frequent patterns
inline constexpr Site kRemoveQr{"quarlo", 131};      // unlink(FILE.qr)
inline constexpr Site kBackConvert{"quarlo", 136};   // Fatal error in r_convert (back)
inline constexpr Site kRemoveFpConv{"quarlo", 139};  // unlink(FILE.fp_conv)
inline constexpr Site kRemoveConv{"quarlo", 140};    // unlink(FILE.conv)
inline constexpr Site kTid{"quarlo", 254};           // -t is not supported
inline constexpr Site kEmptyFile{"quarlo", 259};     // no file names from an empty FILE
inline constexpr Site kGroupWrite{"quarlo", 272};    // Failed to write (grouping)
inline constexpr Site kRename{"quarlo", 280};        // rename(tmp, file)
inline constexpr Site kNotRegular{"quarlo", 282};    // FILE is not a regular file
inline constexpr Site kInUse{"quarlo", 284};         // FILE is in use by another run
inline constexpr Site kOutOfMemory{"quarlo", 286};   // out of memory in a stage

// Options and log.
inline constexpr Site kGetopt{"../vscom/vscmdl", 157};  // getopt returned an invalid code
inline constexpr Site kLogOpen{"../vscom/log", 56};     // Cannot open log file

// Support table.
inline constexpr Site kTableWord{"../vscom/suppfunc", 77};      // Word too long
inline constexpr Site kTableLength0{"../vscom/suppfunc", 84};   // Invalid length 0
inline constexpr Site kTableOpen{"../vscom/suppfunc", 124};     // fopen(table)
inline constexpr Site kTableLength1{"../vscom/suppfunc", 133};  // length 1 must be given

// Converted text to binary transactions.
inline constexpr Site kTwoItemsets{"ttoqr", 26};        // Sequence with more than one itemsets
inline constexpr Site kTwoItemsetsFatal{"ttoqr", 98};   // Fatal error in tseq_to_vsseq()
inline constexpr Site kLongestLine{"ttoqr", 64};        // Fatal error in max_line_size
inline constexpr Site kBinaryOpen{"ttoqr", 82};         // open(FILE.qr)
inline constexpr Site kBinaryWrite{"ttoqr", 103};       // write(*, *, 4)
inline constexpr Site kConvClose{"ttoqr", 111};         // fclose()
inline constexpr Site kBinaryClose{"ttoqr", 115};       // close()
inline constexpr Site kConvOpen{"../vscom/util", 104};  // fopen(FILE.conv, "r")

// Transaction store.
inline constexpr Site kPoolBlocks{"qrdb", 28};       // malloc of the two pool blocks
inline constexpr Site kCurrentTran{"qrdb", 40};      // malloc of the current transaction
inline constexpr Site kBinaryLoadOpen{"qrdb", 134};  // open(FILE.qr)
inline constexpr Site kBinaryLoadRead{"qrdb", 143};  // read(FILE.qr)
inline constexpr Site kBinaryLoadGrow{"qrdb", 163};  // realloc while loading
inline constexpr Site kNewBuffer{"qrdb", 201};       // malloc of a buffer block
inline constexpr Site kGrowPlain{"qrdb", 247};       // realloc for a plain record
inline constexpr Site kGrowWeighted{"qrdb", 274};    // realloc for a weighted record

// Frequent items and pruning tables.
inline constexpr Site kItemTable{"qrcf1", 48};  // malloc of the item table
inline constexpr Site kPruneTables{"np2", 42};  // malloc of the pruning tables

// Tree and mining recursion.
inline constexpr Site kFirstBlock{"cfptree", 139};
inline constexpr Site kNodeBlock{"cfptree", 163};
inline constexpr Site kRecursionMalloc{"cfptree", 365};
inline constexpr Site kRecursionMine{"cfptree", 376};
inline constexpr Site kCollectInitBuf{"cfptree", 684};
inline constexpr Site kCollectInsert{"cfptree", 740};
inline constexpr Site kConditionalItems{"cfptree", 755};
inline constexpr Site kConditionalTree{"cfptree", 773};
inline constexpr Site kConditionalMine{"cfptree", 810};
inline constexpr Site kHeaderMalloc{"cfptree", 1118};
inline constexpr Site kHeaderTable{"cfptree", 1161};

// Engine entry.
inline constexpr Site kEngineInitPool{"qr", 96};
inline constexpr Site kEngineInitBuf{"qr", 101};
inline constexpr Site kEngineLoad{"qr", 106};
inline constexpr Site kEnginePruneTables{"qr", 120};
inline constexpr Site kEngineSupportTable{"qr", 130};
inline constexpr Site kEngineItems{"qr", 143};
inline constexpr Site kEngineTree{"qr", 169};
inline constexpr Site kEngineSink{"qr", 177};
inline constexpr Site kEngineMine{"qr", 183};

// Pattern file.
inline constexpr Site kPatternOpen{"iopttn", 26};
inline constexpr Site kPatternMemory{"iopttn", 37};
inline constexpr Site kPatternClose{"iopttn", 47};

// Parent-children list.
inline constexpr Site kPcOpenPatterns{"../vscom/lattice", 37};
inline constexpr Site kPcOpen{"../vscom/lattice", 41};
inline constexpr Site kPcWrite{"../vscom/lattice", 45};

// Maximal pruning.
inline constexpr Site kMaximalNew{"../vscom/maxpat", 19};
inline constexpr Site kMaximalRename{"../vscom/maxpat", 94};
inline constexpr Site kMaximalRemove{"../vscom/maxpat", 95};
inline constexpr Site kMaximalWriteTmp{"../vscom/maxpat", 96};

}  // namespace sites

}  // namespace quarlo::detail

#endif  // QUARLO_BASE_SITES_H_
