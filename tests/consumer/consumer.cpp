#include <traiklofox/traiklofox.h>

int main() {
    Handle* event = CreateEvent(nullptr, FALSE, /*initialState=*/TRUE, nullptr);
    const bool signalled = WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0;
    return CloseHandle(event) == TRUE && signalled ? 0 : 1;
}
