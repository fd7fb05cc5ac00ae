// The library's only door to the operating system.
//
// Every piece that touches files, device nodes, directories, the shell, the
// kernel's identity, the clock and its sleeps, thread creation or the dynamic loader goes through
// these functions. The shipped library links os_linux.cpp, which calls libc
// and nothing else; the unit tests link a fixture world in their place, an
// in-memory tree of files, directories and emulated device nodes with fake
// time. Nothing here is exported.
//
// Contracts are libc's own unless a comment says otherwise: a failing call
// returns -1 (or false / null) and leaves the reason in errno.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <string>
#include <vector>

struct utsname;
struct sysinfo;
struct timeval;

namespace kavo {
namespace os {

// Device nodes and files by descriptor: open64, close, read, write, ioctl.
int Open(const char* path, int flags);
int Close(int fd);
ssize_t Read(int fd, void* buffer, size_t count);
ssize_t Write(int fd, const void* buffer, size_t count);
int Ioctl(int fd, unsigned long request, void* argument);
// fcntl() with an int argument (F_GETFL, F_SETFL).
int Fcntl(int fd, int command, int argument);

// The whole content of a text file (as /proc, /sys and /etc offer them).
// false when the file cannot be opened; an empty file gives true and "".
// Parsers work on the returned text, never on the path.
bool ReadTextFile(const char* path, std::string& text);

// The entry names of a directory in the order readdir64 returns them,
// "." and ".." included. false when the directory cannot be opened.
bool ListDirectory(const char* path, std::vector<std::string>& names);

int Access(const char* path, int mode);
ssize_t ReadLink(const char* path, char* buffer, size_t size);

// system(): runs a command line through the shell; its status is returned.
int RunShellCommand(const char* commandLine);

int Uname(struct utsname* info);
int SysInfo(struct sysinfo* info);

// gettimeofday(): the wall clock that timed waits count their deadlines on.
int GetTimeOfDay(struct timeval* now);

// sleep() and usleep(). In the fixture world they cost no time; the
// slept total is recorded so that tests can check polling waits.
unsigned int SleepSeconds(unsigned int seconds);
void SleepMicroseconds(unsigned int microseconds);

// pthread_create with default attributes: 0, or the error number. The
// fixture world starts threads only for tests that allow them.
int StartThread(pthread_t* thread, void* (*function)(void*), void* argument);

// dlopen, dlsym, dlclose.
void* LoadLibrary(const char* name, int flags);
void* FindSymbol(void* handle, const char* name);
int UnloadLibrary(void* handle);

}  // namespace os
}  // namespace kavo
