// The shipped implementation of the system seam: straight calls into libc.
#include "runtime/os.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace kavo {
namespace os {

int Open(const char* path, int flags) { return ::open64(path, flags); }

int Close(int fd) { return ::close(fd); }

ssize_t Read(int fd, void* buffer, size_t count) { return ::read(fd, buffer, count); }

ssize_t Write(int fd, const void* buffer, size_t count) { return ::write(fd, buffer, count); }

int Ioctl(int fd, unsigned long request, void* argument) { return ::ioctl(fd, request, argument); }


int Fcntl(int fd, int command, int argument) { return ::fcntl(fd, command, argument); }

bool ReadTextFile(const char* path, std::string& text) {
  text.clear();
  int fd = ::open64(path, O_RDONLY);
  if (fd < 0) return false;
  char chunk[4096];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(chunk, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

bool ListDirectory(const char* path, std::vector<std::string>& names) {
  names.clear();
  DIR* dir = ::opendir(path);
  if (dir == nullptr) return false;
  while (struct dirent64* entry = ::readdir64(dir)) names.push_back(entry->d_name);
  ::closedir(dir);
  return true;
}

int Access(const char* path, int mode) { return ::access(path, mode); }

ssize_t ReadLink(const char* path, char* buffer, size_t size) { return ::readlink(path, buffer, size); }

int RunShellCommand(const char* commandLine) { return ::system(commandLine); }

int Uname(struct utsname* info) { return ::uname(info); }

int SysInfo(struct sysinfo* info) { return ::sysinfo(info); }

int GetTimeOfDay(struct timeval* now) { return ::gettimeofday(now, nullptr); }

unsigned int SleepSeconds(unsigned int seconds) { return ::sleep(seconds); }

void SleepMicroseconds(unsigned int microseconds) { ::usleep(microseconds); }

int StartThread(pthread_t* thread, void* (*function)(void*), void* argument) {
  return ::pthread_create(thread, nullptr, function, argument);
}

void* LoadLibrary(const char* name, int flags) { return ::dlopen(name, flags); }

void* FindSymbol(void* handle, const char* name) { return ::dlsym(handle, name); }

int UnloadLibrary(void* handle) { return ::dlclose(handle); }

}  // namespace os
}  // namespace kavo
