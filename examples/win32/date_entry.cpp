// The back end of a date field: reads what a user typed, a line each, and shows it as the library understands it: in
// full, and how far it is from the first line that was a date.

#include <traiklofox/traiklofox.h>  // was: #include <afxwin.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    char szLine[256];
    CDateTime dtFirst;
    BOOL bFirst = TRUE;

    while (fgets(szLine, sizeof(szLine), stdin) != NULL) {
        CDateTime dtTyped;

        szLine[strcspn(szLine, "\n")] = '\0';
        if (!dtTyped.ParseDateTime(szLine)) {
            printf("%-22s is no date\n", szLine);
            continue;
        }
        printf("%-22s %s", szLine, dtTyped.Format("%Y-%m-%d %H:%M:%S").c_str());
        if (bFirst) {
            dtFirst = dtTyped;
            bFirst = FALSE;
        } else {
            CDateTimeSpan dtsBetween = dtTyped - dtFirst;
            printf(", %s days later", dtsBetween.Format("%D").c_str());
        }
        printf("\n");
    }
    return 0;
}
