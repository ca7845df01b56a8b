// The main loop of a service: it waits for whatever comes first of a request to stop, one to read its settings again,
// work, and the end of a helper process.

#include <traiklofox/traiklofox.h>  // was: #include <windows.h>

#include <stdio.h>
#include <string.h>

static HANDLE g_hStop;
static HANDLE g_hReload;
static HANDLE g_hWork;

static HANDLE StartHelper(void) {
    STARTUPINFO si;
    PROCESS_INFORMATION pi;
    char szCommand[] = "/bin/sh -c 'exit 3'";

    memset(&si, 0, sizeof(si));
    si.cb = sizeof(si);
    if (!CreateProcess(NULL, szCommand, NULL, NULL, FALSE, 0, NULL, NULL, &si, &pi)) {
        printf("cannot start the helper: %lu\n", (unsigned long)GetLastError());
        return NULL;
    }
    return pi.hProcess;
}

// What a control handler would do: each step waits until the service has taken the one before.
static DWORD WINAPI Controller(LPVOID lpTaken) {
    HANDLE hTaken = (HANDLE)lpTaken;

    WaitForSingleObject(hTaken, INFINITE);  // the helper's end
    SetEvent(g_hWork);
    WaitForSingleObject(hTaken, INFINITE);
    SetEvent(g_hReload);
    WaitForSingleObject(hTaken, INFINITE);
    SetEvent(g_hWork);
    WaitForSingleObject(hTaken, INFINITE);
    SetEvent(g_hStop);
    return 0;
}

int main(void) {
    HANDLE hHandles[4];
    HANDLE hTaken = CreateEvent(NULL, FALSE, FALSE, NULL);
    DWORD dwCount = 4;
    DWORD dwCode = 0;
    DWORD_PTR dwThreadId;
    BOOL bRunning = TRUE;

    g_hStop = CreateEvent(NULL, TRUE, FALSE, NULL);
    g_hReload = CreateEvent(NULL, FALSE, FALSE, NULL);
    g_hWork = CreateEvent(NULL, FALSE, FALSE, NULL);
    hHandles[0] = g_hStop;
    hHandles[1] = g_hReload;
    hHandles[2] = g_hWork;
    hHandles[3] = StartHelper();
    if (hHandles[3] == NULL) return 1;
    HANDLE hController = CreateThread(NULL, 0, Controller, hTaken, 0, &dwThreadId);

    while (bRunning) {
        DWORD dwWait = WaitForMultipleObjects(dwCount, hHandles, FALSE, 30000);
        switch (dwWait) {
            case WAIT_OBJECT_0:
                printf("stopping\n");
                bRunning = FALSE;
                break;
            case WAIT_OBJECT_0 + 1: printf("reading the settings again\n"); break;
            case WAIT_OBJECT_0 + 2: printf("working\n"); break;
            case WAIT_OBJECT_0 + 3:
                GetExitCodeProcess(hHandles[3], &dwCode);
                printf("the helper has ended with %lu\n", (unsigned long)dwCode);
                CloseHandle(hHandles[3]);
                dwCount = 3;
                break;
            case WAIT_TIMEOUT:
                printf("nothing happens\n");
                bRunning = FALSE;
                break;
            default: printf("the wait has failed: %lu\n", (unsigned long)GetLastError()); return 1;
        }
        // An event that ends a wait on several kinds of handles keeps its signal here.
        if (dwWait == WAIT_OBJECT_0 + 1) ResetEvent(g_hReload);
        if (dwWait == WAIT_OBJECT_0 + 2) ResetEvent(g_hWork);
        SetEvent(hTaken);
    }

    WaitForSingleObject(hController, INFINITE);
    CloseHandle(hController);
    CloseHandle(hTaken);
    CloseHandle(g_hWork);
    CloseHandle(g_hReload);
    CloseHandle(g_hStop);
    return 0;
}
