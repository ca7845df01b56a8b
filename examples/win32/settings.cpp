// The back end of a settings dialog: what the user chose is kept in the registry, for the server, and in an INI file,
// for an older tool beside it.
//
//     settings INI-FILE [PORT NAME [HOST ...]]     sets them; without any, shows what is set

#include <traiklofox/traiklofox.h>  // was: #include <windows.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define COMPANY_KEY "software\\example"
#define SETTINGS_KEY "Settings"

static BOOL Save(LPCSTR lpszIni, DWORD dwPort, LPCSTR lpszName, int nHosts, char** ppszHosts) {
    HKEY hCompany;
    HKEY hKey;
    DWORD dwDisposition;
    char szHosts[1024];
    size_t cbHosts = 0;
    char szPort[16];

    for (int i = 0; i < nHosts; i++) {
        size_t cb = strlen(ppszHosts[i]) + 1;
        if (cbHosts + cb + 1 > sizeof(szHosts)) return FALSE;
        memcpy(szHosts + cbHosts, ppszHosts[i], cb);
        cbHosts += cb;
    }
    szHosts[cbHosts++] = '\0';

    // Below a key that exists: one made directly below the root does not last here.
    if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, COMPANY_KEY, 0, KEY_WRITE, &hCompany) != ERROR_SUCCESS) return FALSE;
    LONG lCreated = RegCreateKeyEx(hCompany, SETTINGS_KEY, 0, NULL, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                                   NULL, &hKey, &dwDisposition);
    RegCloseKey(hCompany);
    if (lCreated != ERROR_SUCCESS) return FALSE;
    BOOL bSaved =
        RegSetValueEx(hKey, "Port", 0, REG_DWORD, (const BYTE*)&dwPort, sizeof(dwPort)) == ERROR_SUCCESS &&
        RegSetValueEx(hKey, "Name", 0, REG_SZ, (const BYTE*)lpszName, (DWORD)strlen(lpszName) + 1) ==
            ERROR_SUCCESS &&
        RegSetValueEx(hKey, "Hosts", 0, REG_MULTI_SZ, (const BYTE*)szHosts, (DWORD)cbHosts) == ERROR_SUCCESS;
    RegCloseKey(hKey);
    printf("%s\n", dwDisposition == REG_CREATED_NEW_KEY ? "made" : "changed");

    sprintf(szPort, "%lu", (unsigned long)dwPort);
    return bSaved && WritePrivateProfileString("Server", "Port", szPort, lpszIni) &&
           WritePrivateProfileString("Server", "Name", lpszName, lpszIni);
}

static BOOL Show(LPCSTR lpszIni) {
    HKEY hKey;
    DWORD dwType;
    DWORD dwPort = 0;
    DWORD cbData = sizeof(dwPort);
    char szName[256];
    char szHosts[1024];
    char szIniName[256];

    if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, COMPANY_KEY "\\" SETTINGS_KEY, 0, KEY_READ, &hKey) !=
        ERROR_SUCCESS) {
        printf("nothing is set\n");
        return TRUE;
    }
    RegQueryValueEx(hKey, "Port", NULL, &dwType, (LPBYTE)&dwPort, &cbData);
    cbData = sizeof(szName);
    RegQueryValueEx(hKey, "Name", NULL, &dwType, (LPBYTE)szName, &cbData);
    cbData = sizeof(szHosts);
    RegQueryValueEx(hKey, "Hosts", NULL, &dwType, (LPBYTE)szHosts, &cbData);
    RegCloseKey(hKey);

    printf("registry: %s on port %lu\n", szName, (unsigned long)dwPort);
    for (const char* pszHost = szHosts; *pszHost != '\0'; pszHost += strlen(pszHost) + 1)
        printf("  for %s\n", pszHost);

    GetPrivateProfileString("Server", "Name", "(none)", szIniName, sizeof(szIniName), lpszIni);
    printf("INI file: %s on port %u\n", szIniName, GetPrivateProfileInt("Server", "Port", 0, lpszIni));
    return TRUE;
}

int main(int argc, char** argv) {
    if (argc != 2 && argc < 4) {
        fprintf(stderr, "usage: settings INI-FILE [PORT NAME [HOST ...]]\n");
        return 2;
    }
    BOOL bDone = argc == 2 ? Show(argv[1])
                           : Save(argv[1], (DWORD)strtoul(argv[2], NULL, 10), argv[3], argc - 4, argv + 4);
    return bDone ? 0 : 1;
}
