// An application with classes and functions that bear the library's names, as a server of its age may well
// have: the library goes on using its own. Prints what broke and returns 1, or returns 0.

#include <traiklofox/types.h>

#include <cstdio>

// The application's own classes: another layout, other virtual functions. Defined outside the class, so that
// the program really has symbols of those names, tables included.
int classCalls = 0;

class Event {
  public:
    explicit Event(int);
    Event(LONG, BOOL, BOOL, const char*);
    virtual ~Event();
    virtual BOOL Pulse();
    virtual BOOL Set();
    virtual BOOL Reset();
    virtual DWORD What() const;
    virtual DWORD WaitForHandle(DWORD, BOOL);
    double payload[16] = {};
};
Event::Event(int) {}
Event::Event(LONG, BOOL, BOOL, const char*) {
    ++classCalls;
}
Event::~Event() {
    ++classCalls;
}
BOOL Event::Pulse() {
    return ++classCalls;
}
BOOL Event::Set() {
    return ++classCalls;
}
BOOL Event::Reset() {
    return ++classCalls;
}
DWORD Event::What() const {
    return static_cast<DWORD>(++classCalls);
}
DWORD Event::WaitForHandle(DWORD, BOOL) {
    return static_cast<DWORD>(++classCalls);
}

class Thread {
  public:
    virtual ~Thread();
    virtual int GetState() const;
    char name[3] = {};
};
Thread::~Thread() = default;
int Thread::GetState() const {
    return -1;
}

// Functions of ours that the library calls itself.
int functionCalls = 0;
BOOL EventSet(Handle*) {
    return ++functionCalls;
}
int UserAPCCheck() {
    return ++functionCalls;
}
extern "C" BOOL SetEvent(Handle*) {
    return ++functionCalls;
}
extern "C" DWORD WaitForSingleObjectEx(Handle*, DWORD, BOOL) {
    return static_cast<DWORD>(++functionCalls);
}

// The library's, which this program does use.
extern "C" Handle* CreateEvent(_SECURITY_ATTRIBUTES*, BOOL, BOOL, const char*);
extern "C" BOOL PulseEvent(Handle*);
extern "C" BOOL ResetEvent(Handle*);
extern "C" DWORD WaitForSingleObject(Handle*, DWORD);
extern "C" DWORD WaitForMultipleObjects(DWORD, Handle**, BOOL, DWORD);
extern "C" BOOL CloseHandle(Handle*);

namespace {

constexpr DWORD kTimedOut = 258;
bool broken = false;

void expect(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", what);
    broken = true;
}

}  // namespace

int main() {
    Handle* event = CreateEvent(nullptr, /*manualReset=*/TRUE, /*initialState=*/FALSE, nullptr);
    expect(WaitForSingleObject(event, 0) == kTimedOut, "a new event is not signalled");
    expect(PulseEvent(event) == 0, "PulseEvent is the library's");
    expect(WaitForSingleObject(event, 0) == 0, "PulseEvent has set the event");
    Handle* both[] = {event, event};
    expect(WaitForMultipleObjects(2, both, /*waitAll=*/FALSE, 0) == 0, "a multiple wait finds it set");
    expect(ResetEvent(event) == TRUE, "ResetEvent is the library's");
    expect(WaitForSingleObject(event, 0) == kTimedOut, "ResetEvent has reset the event");
    expect(CloseHandle(event) == TRUE, "the event is closed");
    expect(classCalls == 0, "the library has called none of this program's classes");
    expect(functionCalls == 0, "the library has called none of this program's functions");

    Event own{0};
    expect(own.Pulse() == 1 && classCalls == 1, "this program's class is its own");
    expect(SetEvent(nullptr) == 1, "this program's function is its own");
    return broken ? 1 : 0;
}
