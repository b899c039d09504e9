// Info files under /tmp/info (one small text file per published value) and
// the bounded string helpers used wherever names go into fixed arrays.
#pragma once

#include <cstdio>

constexpr const char* kInfoDirectory = "/tmp/info";

// Return codes of the functions below.
enum : int {
    eInfoOK = 0,
    eInfoBadArgument = -1,
    eInfoNoDirectory = -2,
    eInfoCantOpen = -3,
    eInfoShortWrite = -4,
    eInfoReadFailed = -6,
    eInfoZeroSize = -7,
    eInfoCantRemove = -10,
    eInfoEmptyFile = -11,
};

int CreateInfoDirectory();
int SetInfo(const char* name, const char* text);
int SetInfo(const char* name, int value);
int SetInfo(const char* name, float value);
int SetInfo(const char* name, bool value);
int WriteTextFile(const char* path, const char* text);
int GetInfo(const char* name, char* buf, unsigned size);
int GetInfo(const char* name, int& value);
int GetInfo(const char* name, bool& value);
int GetInfo(const char* name, float& value);
int ReadTextFile(const char* path, char* buf, unsigned size);
int DeleteInfo(const char* name);

// Copies at most size-1 characters and always terminates; returns the count,
// or -7 when size is 0 (nothing written).
int strscpy(char* dst, const char* src, unsigned size);
// Overlap-safe copy of src with its terminator; returns dst.
char* strmove(char* dst, const char* src);

bool SetCloseOnExec(FILE* stream);
bool SetCloseOnExec(int fd);
