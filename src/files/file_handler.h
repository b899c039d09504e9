// The interface through which a module reaches its file handler. All of these
// run on the owning module's worker thread; the real-time callback only ever
// touches the handler's ring buffer.
#pragma once

#include "protocol/zor_play_msg.h"

class CFileHandler {
public:
    virtual ~CFileHandler() {}

    // Installs a playlist (players only).
    virtual enumZorPlayResult AddPlaylist(structSetupPlaylist* setup) = 0;
    // Record set-up; a handler of the other kind refuses it with 32.
    virtual enumZorPlayResult AddSingleFile(structSetupFile* /*setup*/) { return eResultWrongModuleType; }
    // Play set-up; a handler of the other kind refuses it with 32.
    virtual enumZorPlayResult AddSingleFile(structSetupPlayFile* /*setup*/) { return eResultWrongModuleType; }
    // Called by the module's stop once the state is Draining, before the
    // worker services the buffer for the last time.
    virtual int ManualStop() = 0;
    // Capacity in frames of the ring buffer the real-time callback uses.
    virtual unsigned GetRTBufLen() = 0;
    // Name of the file being played or recorded; never null.
    virtual const char* GetActiveFilename() = 0;
    virtual void DoDisplayDebug() = 0;
};
