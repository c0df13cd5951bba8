/* scctl for shells that a test or a tool starts: a program in PATH. */
#ifndef SCCTL_SHELL_H
#define SCCTL_SHELL_H

#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "scctl/edits.h"

namespace sc_test {

inline void write_script(const std::string& path, const std::string& text) {
  write_file(path, "#!/bin/sh\n" + text);
  chmod(path.c_str(), 0755);
}

/* While it lives, shells find scctl. */
class ShellScctl {
 public:
  ShellScctl() : path_(getenv("PATH")) {
    std::string command;
    for (const std::string& word : scctl({})) command += " '" + word + "'";
    mkdir("/var/shell", 0755);
    /* The command may be found by PATH itself. */
    write_script("/var/shell/scctl", "PATH='" + path_ + "'\nexec" + command + " \"$@\"\n");
    setenv("PATH", ("/var/shell:" + path_).c_str(), 1);
  }
  ~ShellScctl() { setenv("PATH", path_.c_str(), 1); }
  ShellScctl(const ShellScctl&) = delete;
  ShellScctl& operator=(const ShellScctl&) = delete;

 private:
  std::string path_;
};

}  // namespace sc_test

#endif
