#ifndef KERROW_TESTS_SUPPORT_FORKED_CALL_H_
#define KERROW_TESTS_SUPPORT_FORKED_CALL_H_

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace kerrow::testing {

// Runs `body` in a forked child and returns the text it produced. With
// `as_nobody`, a child started by root first drops to the unprivileged user, so
// that file permissions apply to it as they would to a desktop user.
inline std::string RunInChild(const std::function<std::string()>& body, bool as_nobody) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (as_nobody && geteuid() == 0) {
      if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
    }
    const std::string text = body();
    const ssize_t written = write(fds[1], text.data(), text.size());
    _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 4);
  }
  close(fds[1]);
  std::string text;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = read(fds[0], buffer, sizeof(buffer))) > 0) text.append(buffer, static_cast<size_t>(got));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "child failed";
  return text;
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_FORKED_CALL_H_
