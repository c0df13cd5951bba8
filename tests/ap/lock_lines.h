/* What the journal holds of an operation on one lock file. */
#ifndef AP_LOCK_LINES_H
#define AP_LOCK_LINES_H

#include <string>
#include <vector>

/* The file opened, these calls, the file closed. */
inline std::vector<std::string> under(const std::string& path, std::vector<std::string> calls) {
  calls.insert(calls.begin(), "#1 = open " + path);
  calls.push_back("close #1");
  return calls;
}

#endif
