// SPDX-License-Identifier: MIT
// Ways to leave a program that run no exit handlers: the report goes out before.
#include "vboard/kernel/Interpose.h"

#include <unistd.h>

#include <cstdarg>

#include "vboard/launcher/Session.h"

namespace {

using vboard::kernel::Next;
using vboard::launcher::reportBeforeLeaving;

Next<void(int)> nextExit("_exit");
Next<int(const char*, char* const*, char* const*)> nextExecve("execve");
Next<int(const char*, char* const*)> nextExecv("execv");
Next<int(const char*, char* const*)> nextExecvp("execvp");
Next<int(const char*, char* const*, char* const*)> nextExecvpe("execvpe");
Next<int(int, char* const*, char* const*)> nextFexecve("fexecve");

/// How many arguments follow the first, its null included.
size_t countArguments(const char* first, va_list arguments) {
  size_t count = 1;
  va_list copy;
  va_copy(copy, arguments);
  for (const char* each = first; each != nullptr; each = va_arg(copy, const char*)) {
    ++count;
  }
  va_end(copy);
  return count;
}

/// On the stack of the caller: a child of vfork must not allocate.
void collectArguments(char** array, const char* first, va_list arguments) {
  *array = const_cast<char*>(first);
  while (*array != nullptr) {
    *++array = va_arg(arguments, char*);
  }
}

}  // namespace

VBOARD_INTERPOSED void _exit(int status) {
  reportBeforeLeaving();
  nextExit(status);
  __builtin_unreachable();
}

VBOARD_INTERPOSED void _Exit(int status) noexcept {
  _exit(status);
}

VBOARD_INTERPOSED int execve(const char* path, char* const argv[], char* const envp[]) noexcept {
  reportBeforeLeaving();
  return nextExecve(path, argv, envp);
}

VBOARD_INTERPOSED int execv(const char* path, char* const argv[]) noexcept {
  reportBeforeLeaving();
  return nextExecv(path, argv);
}

VBOARD_INTERPOSED int execvp(const char* file, char* const argv[]) noexcept {
  reportBeforeLeaving();
  return nextExecvp(file, argv);
}

VBOARD_INTERPOSED int execvpe(const char* file, char* const argv[], char* const envp[]) noexcept {
  reportBeforeLeaving();
  return nextExecvpe(file, argv, envp);
}

VBOARD_INTERPOSED int fexecve(int descriptor, char* const argv[], char* const envp[]) noexcept {
  reportBeforeLeaving();
  return nextFexecve(descriptor, argv, envp);
}

VBOARD_INTERPOSED int execl(const char* path, const char* first, ...) noexcept {
  reportBeforeLeaving();
  va_list arguments;
  va_start(arguments, first);
  auto** argv =
      static_cast<char**>(__builtin_alloca(countArguments(first, arguments) * sizeof(char*)));
  collectArguments(argv, first, arguments);
  va_end(arguments);
  return nextExecv(path, argv);
}

VBOARD_INTERPOSED int execlp(const char* file, const char* first, ...) noexcept {
  reportBeforeLeaving();
  va_list arguments;
  va_start(arguments, first);
  auto** argv =
      static_cast<char**>(__builtin_alloca(countArguments(first, arguments) * sizeof(char*)));
  collectArguments(argv, first, arguments);
  va_end(arguments);
  return nextExecvp(file, argv);
}

VBOARD_INTERPOSED int execle(const char* path, const char* first, ...) noexcept {
  reportBeforeLeaving();
  va_list arguments;
  va_start(arguments, first);
  auto** argv =
      static_cast<char**>(__builtin_alloca(countArguments(first, arguments) * sizeof(char*)));
  collectArguments(argv, first, arguments);
  char* const* environment = va_arg(arguments, char* const*);
  va_end(arguments);
  return nextExecve(path, argv, environment);
}
