// Watches a directory and prints what is dropped into it and taken out of it, until a file named "stop" comes.
//
//     watch_directory DIRECTORY

#include <traiklofox/traiklofox.h>  // was: #include <windows.h>

#include <stdio.h>
#include <string.h>

static BYTE g_Buffer[4096];

// The system looks after watched directories by itself; here the application gives it a thread.
static DWORD WINAPI Scanner(LPVOID) {
    WatchDirsCallbacks Callbacks;

    memset(&Callbacks, 0, sizeof(Callbacks));
    Callbacks.sleep = [](DWORD) { Sleep(50); };  // it would take four seconds
    return WatchDirsThread(&Callbacks);
}

// Prints the records; FALSE when the one has come that ends it.
static BOOL PrintChanges(DWORD dwBytes) {
    const BYTE* pPlace = g_Buffer;

    while (dwBytes > 0) {
        const FILE_NOTIFY_INFORMATION* pInfo = (const FILE_NOTIFY_INFORMATION*)pPlace;
        const char* pszAction = pInfo->Action == FILE_ACTION_ADDED     ? "added"
                                : pInfo->Action == FILE_ACTION_REMOVED ? "removed"
                                                                       : "changed";
        if (pInfo->FileNameLength == 4 && memcmp(pInfo->FileName, "stop", 4) == 0) return FALSE;
        printf("%s %.*s, %lu bytes\n", pszAction, (int)pInfo->FileNameLength, pInfo->FileName,
               (unsigned long)pInfo->FileSize);
        if (pInfo->NextEntryOffset == 0) break;
        pPlace += pInfo->NextEntryOffset;
    }
    fflush(stdout);
    return TRUE;
}

int main(int argc, char** argv) {
    OVERLAPPED Overlapped;
    DWORD_PTR dwThreadId;
    DWORD dwBytes;
    ULONG_PTR ulKey;
    LPOVERLAPPED lpOverlapped;

    if (argc != 2) {
        fprintf(stderr, "usage: watch_directory DIRECTORY\n");
        return 2;
    }
    HANDLE hDirectory =
        CreateFile(argv[1], GENERIC_READ, 0, NULL, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, NULL);
    if (hDirectory == INVALID_HANDLE_VALUE) {
        fprintf(stderr, "cannot watch %s: error %lu\n", argv[1], (unsigned long)GetLastError());
        return 1;
    }
    HANDLE hPort = CreateIoCompletionPort(hDirectory, NULL, 1, 0);
    CloseHandle(CreateThread(NULL, 0, Scanner, NULL, 0, &dwThreadId));

    for (;;) {
        memset(&Overlapped, 0, sizeof(Overlapped));
        if (!ReadDirectoryChanges(
                hDirectory, g_Buffer, sizeof(g_Buffer), FALSE,
                FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_SIZE, NULL,
                &Overlapped, NULL))
            return 1;
        if (!GetQueuedCompletionStatus(hPort, &dwBytes, &ulKey, &lpOverlapped, INFINITE)) return 1;
        if (!PrintChanges(dwBytes)) break;
    }
    FindCloseChangeNotification(hDirectory);
    CloseHandle(hPort);
    return 0;
}
