// CVEMFoldingSink: a sink that keeps a repeated log line from filling the log.
//
// Identical lines (same kit, level, code, function, source line and message
// text, the numbers in the text left out: "batch 0,1,2" and "batch 7,8" are
// alike, "vemPerfNodeTable failed" and "vemPerfPortTable failed" are not)
// inside a window of W seconds are
// folded: the first is written at once, the later ones are only counted.
// When the window ends with a non-zero count, one summary line is written
// with the same kit, level, code, function and line and the text
// "… and N more like this in the last W s" (for a record without a source
// line followed by ": " and the first line's text, which names what was
// folded). A line that keeps coming keeps
// its key open, so it costs one summary per window; a window that ends with
// nothing counted closes the key, and the next such line is written at once.
//
// Windows are checked on every write and on flush(), which the program
// calls about once a second. Trace lines are written as they come. Pending
// counts are written as summaries by flushAll() and by the destructor, so
// nothing counted is lost. Thread-safe; the inner sink is called without
// the sink's lock held.
#ifndef ZERVA_VEMPUB_VEM_LOG_FOLDING_H_
#define ZERVA_VEMPUB_VEM_LOG_FOLDING_H_

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "vempub/vem_debug_kit.h"

class CVEMFoldingSink : public IVEMLogSink {
 public:
  typedef std::chrono::steady_clock::time_point TimePoint;
  typedef std::function<TimePoint()> Clock;

  // Folds into inner (null: stderr) over windows of `window` (at least one
  // second). clock gives the time (empty: the steady clock; tests pass a
  // fake one).
  CVEMFoldingSink(std::shared_ptr<IVEMLogSink> inner, std::chrono::seconds window, Clock clock = Clock());
  ~CVEMFoldingSink() override;  // flushAll()
  CVEMFoldingSink(const CVEMFoldingSink&) = delete;
  CVEMFoldingSink& operator=(const CVEMFoldingSink&) = delete;

  void write(const CVEMLogRecord& record) override;
  // Writes the summaries of the windows that have ended.
  void flush();
  // Writes a summary for every pending count, ended or not, and forgets
  // every key (at shutdown, or before the sink is replaced).
  void flushAll();

  const std::shared_ptr<IVEMLogSink>& inner() const { return inner_; }
  std::chrono::seconds window() const { return window_; }
  // Lines counted and not yet summarised.
  unsigned long long pending() const;

  // The summary text: "… and 3 more like this in the last 60 s".
  static std::string SummaryText(unsigned long long count, std::chrono::seconds window);

 private:
  // kit, level, code, function, line, message (only for line 0)
  typedef std::tuple<unsigned int, int, unsigned long long, std::string, unsigned int, std::string> Key;
  struct Fold {
    TimePoint start;  // when the key's current window began
    unsigned long long count = 0;
    CVEMLogRecord first;  // the line written at once, for the summary's fields
  };

  static Key KeyOf(const CVEMLogRecord& record);
  CVEMLogRecord summary(const Fold& fold) const;
  // Moves the summaries of ended windows to *out; closes idle keys.
  void expire(TimePoint now, std::vector<CVEMLogRecord>* out);
  void writeAll(const std::vector<CVEMLogRecord>& records);

  const std::shared_ptr<IVEMLogSink> inner_;
  const std::chrono::seconds window_;
  const Clock clock_;
  mutable std::mutex mu_;
  std::map<Key, Fold> folds_;
};

#endif  // ZERVA_VEMPUB_VEM_LOG_FOLDING_H_
