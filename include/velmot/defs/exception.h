#ifndef VELMOT_DEFS_EXCEPTION_H
#define VELMOT_DEFS_EXCEPTION_H

// The library's only failure channel. The root is deliberately not derived
// from std::exception, so that a boundary can tell library failures from
// standard ones (allocation failures) and report each in its own form.

#include <string>

namespace Velmot {

class Exception {
public:
  Exception() = default;
  explicit Exception(const std::string& msg) : msg(msg) {}
  virtual ~Exception() = default;

  const std::string& get_message() const { return msg; }

private:
  std::string msg;
};

// Failure while reading a text input; line_no is 1-based, or -1 where no
// line applies.
class DataIOException : public Exception {
public:
  DataIOException() = default;
  DataIOException(int line_no, const std::string& msg) : Exception(msg), line_no(line_no) {}

  int get_line_no() const { return line_no; }

private:
  int line_no = 0;
};

// The input text is not in the expected format at all.
class FileFormatException : public Exception {
public:
  FileFormatException() = default;
  explicit FileFormatException(const std::string& msg) : Exception(msg) {}
};

// The data handed to a learner cannot be used (an empty data set).
class IncompatibleDataException : public Exception {
public:
  IncompatibleDataException() = default;
  explicit IncompatibleDataException(const std::string& msg) : Exception(msg) {}
};

// A tracker or accumulator was asked for its best entry while holding none.
class EmptyTrackerException : public Exception {
public:
  EmptyTrackerException() = default;
  explicit EmptyTrackerException(const std::string& msg) : Exception(msg) {}
};

}  // namespace Velmot

#endif
