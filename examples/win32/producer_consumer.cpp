// Producers and consumers around a bounded buffer: two semaphores count its free and its filled places, a critical
// section guards its ends, and an event tells the consumers that nothing more comes.

#include <traiklofox/traiklofox.h>  // was: #include <windows.h>

#include <stdio.h>

#define BUFFER_PLACES 8
#define PRODUCERS 3
#define CONSUMERS 2
#define ITEMS_EACH 1000

static int g_Buffer[BUFFER_PLACES];
static int g_nFirst = 0;
static int g_nNext = 0;
static CRITICAL_SECTION g_csBuffer;
static HANDLE g_hFree;
static HANDLE g_hFilled;

static LONG g_lConsumed = 0;
static LONG g_lSum = 0;

static void Put(int nItem) {
    WaitForSingleObject(g_hFree, INFINITE);
    EnterCriticalSection(&g_csBuffer);
    g_Buffer[g_nNext] = nItem;
    g_nNext = (g_nNext + 1) % BUFFER_PLACES;
    LeaveCriticalSection(&g_csBuffer);
    ReleaseSemaphore(g_hFilled, 1, NULL);
}

static int Get(void) {
    WaitForSingleObject(g_hFilled, INFINITE);
    EnterCriticalSection(&g_csBuffer);
    int nItem = g_Buffer[g_nFirst];
    g_nFirst = (g_nFirst + 1) % BUFFER_PLACES;
    LeaveCriticalSection(&g_csBuffer);
    ReleaseSemaphore(g_hFree, 1, NULL);
    return nItem;
}

static DWORD WINAPI Producer(LPVOID) {
    for (int i = 1; i <= ITEMS_EACH; i++) Put(i);
    return 0;
}

static DWORD WINAPI Consumer(LPVOID) {
    for (;;) {
        int nItem = Get();
        if (nItem == 0) return 0;  // the end
        InterlockedIncrement(&g_lConsumed);
        InterlockedExchangeAdd(&g_lSum, nItem);
    }
}

int main(void) {
    HANDLE hProducers[PRODUCERS];
    HANDLE hConsumers[CONSUMERS];
    DWORD_PTR dwThreadId;

    InitializeCriticalSection(&g_csBuffer);
    g_hFree = CreateSemaphore(NULL, BUFFER_PLACES, BUFFER_PLACES, NULL);
    g_hFilled = CreateSemaphore(NULL, 0, BUFFER_PLACES, NULL);

    for (int i = 0; i < PRODUCERS; i++) hProducers[i] = CreateThread(NULL, 0, Producer, NULL, 0, &dwThreadId);
    for (int i = 0; i < CONSUMERS; i++) hConsumers[i] = CreateThread(NULL, 0, Consumer, NULL, 0, &dwThreadId);

    for (int i = 0; i < PRODUCERS; i++) WaitForSingleObject(hProducers[i], INFINITE);
    for (int i = 0; i < CONSUMERS; i++) Put(0);
    for (int i = 0; i < CONSUMERS; i++) WaitForSingleObject(hConsumers[i], INFINITE);

    printf("%ld items consumed, their sum is %ld\n", (long)g_lConsumed, (long)g_lSum);

    for (int i = 0; i < PRODUCERS; i++) CloseHandle(hProducers[i]);
    for (int i = 0; i < CONSUMERS; i++) CloseHandle(hConsumers[i]);
    CloseHandle(g_hFilled);
    CloseHandle(g_hFree);
    DeleteCriticalSection(&g_csBuffer);
    return 0;
}
