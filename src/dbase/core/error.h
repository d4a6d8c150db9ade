// The one error type of the table engine. Every fault names the file (or the
// filter text) it concerns and says what is wrong, so a message that reaches
// the user of the host program is enough to find the cause.
#pragma once

#include <stdexcept>
#include <string>

namespace dbase {

enum class ErrorKind {
  Io,            // the file could not be opened, read or written
  Corrupt,       // the file is not a valid dBase table
  InvalidArgument,  // a bad filter, an unknown field or tag, a value that does not fit
  NotSupported,  // something the engine refuses to do (write through an MDX, ...)
  State,         // an operation the cursor's state does not allow (Post without Edit, ...)
};

class Error : public std::runtime_error {
 public:
  Error(ErrorKind kind, const std::string& subject, const std::string& fault)
      : std::runtime_error(subject.empty() ? fault : subject + ": " + fault),
        kind_(kind), subject_(subject), fault_(fault) {}

  ErrorKind kind() const { return kind_; }
  const std::string& subject() const { return subject_; }  // file name or filter text
  const std::string& fault() const { return fault_; }

 private:
  ErrorKind kind_;
  std::string subject_;
  std::string fault_;
};

}  // namespace dbase
