#include "vempub/vem_log_folding.h"

#include <cctype>

CVEMFoldingSink::CVEMFoldingSink(std::shared_ptr<IVEMLogSink> inner, std::chrono::seconds window, Clock clock)
    : inner_(inner ? std::move(inner) : std::make_shared<CVEMStderrSink>()),
      window_(window.count() < 1 ? std::chrono::seconds(1) : window),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::steady_clock::now(); })) {}

CVEMFoldingSink::~CVEMFoldingSink() { flushAll(); }

std::string CVEMFoldingSink::SummaryText(unsigned long long count, std::chrono::seconds window) {
  return "\u2026 and " + std::to_string(count) + " more like this in the last " + std::to_string(window.count()) + " s";
}

CVEMFoldingSink::Key CVEMFoldingSink::KeyOf(const CVEMLogRecord& record) {
  // The text tells apart lines that one source line writes about different
  // things (two tables failing); the numbers in it (IDs and ID lists, a
  // client's address and port, a length) do not. A run of digits that
  // does not go on a word, with a leading minus and the commas and dots
  // inside or after it, counts as one '#'.
  const std::string& m = record.message;
  auto isDigit = [&m](size_t i) { return i < m.size() && std::isdigit(static_cast<unsigned char>(m[i])) != 0; };
  auto inWord = [&m](size_t i) {
    return i > 0 && (std::isalpha(static_cast<unsigned char>(m[i - 1])) != 0 || m[i - 1] == '_');
  };
  std::string text;
  bool inNumber = false;
  for (size_t i = 0; i < m.size(); ++i) {
    const char c = m[i];
    // A number starts where a word does not go on ("NfsV3" is a name).
    const bool starts = !inNumber && !inWord(i) && (isDigit(i) || (c == '-' && isDigit(i + 1)));  // "-1" too
    const bool number = starts || (inNumber && (isDigit(i) || c == ',' || c == '.'));
    if (!number) {
      text += c;
    } else if (!inNumber) {
      text += '#';
    }
    inNumber = number;
  }
  return Key(record.kitNo, static_cast<int>(record.level), record.code, record.function, record.line, text);
}

CVEMLogRecord CVEMFoldingSink::summary(const Fold& fold) const {
  CVEMLogRecord out = fold.first;
  out.message = SummaryText(fold.count, window_);
  if (fold.first.line == 0) out.message += ": " + fold.first.message;
  return out;
}

void CVEMFoldingSink::expire(TimePoint now, std::vector<CVEMLogRecord>* out) {
  for (auto it = folds_.begin(); it != folds_.end();) {
    Fold& fold = it->second;
    bool open = true;
    // A window that ended with lines counted is summarised and the next one
    // starts where it ended; one that ended with none closes the key.
    while (now - fold.start >= window_) {
      if (fold.count == 0) {
        open = false;
        break;
      }
      out->push_back(summary(fold));
      fold.count = 0;
      fold.start += window_;
    }
    it = open ? std::next(it) : folds_.erase(it);
  }
}

void CVEMFoldingSink::writeAll(const std::vector<CVEMLogRecord>& records) {
  for (const CVEMLogRecord& r : records) inner_->write(r);
}

void CVEMFoldingSink::write(const CVEMLogRecord& record) {
  std::vector<CVEMLogRecord> out;
  {
    std::lock_guard<std::mutex> lock(mu_);
    const TimePoint now = clock_();
    expire(now, &out);
    if (record.level == VEM_LOG_TRACE) {
      out.push_back(record);
    } else {
      Key key = KeyOf(record);
      auto found = folds_.find(key);
      if (found != folds_.end()) {
        ++found->second.count;
      } else {
        Fold& fold = folds_[std::move(key)];
        fold.start = now;
        fold.first = record;
        out.push_back(record);
      }
    }
  }
  writeAll(out);
}

void CVEMFoldingSink::flush() {
  std::vector<CVEMLogRecord> out;
  {
    std::lock_guard<std::mutex> lock(mu_);
    expire(clock_(), &out);
  }
  writeAll(out);
}

void CVEMFoldingSink::flushAll() {
  std::vector<CVEMLogRecord> out;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& entry : folds_) {
      if (entry.second.count != 0) out.push_back(summary(entry.second));
    }
    folds_.clear();
  }
  writeAll(out);
}

unsigned long long CVEMFoldingSink::pending() const {
  std::lock_guard<std::mutex> lock(mu_);
  unsigned long long n = 0;
  for (const auto& entry : folds_) n += entry.second.count;
  return n;
}
