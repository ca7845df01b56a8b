#pragma once

/// URLs: taking them apart, making them, bringing them into one form. Nothing here reaches for a network.
///
/// A URL is bytes; percent escapes stand for those that it may not hold itself. Functions return TRUE, or FALSE
/// with `errno`: EINVAL for a null pointer and for what is no URL, ERANGE for a buffer that is too small, ENOMEM.
/// Any thread may call any function.
///
/// What is no URL: a port that is no number up to 65,535, a host with a blank, a control character or another
/// character that hosts do not have, a "[" without its "]", and, where a function needs a whole URL, one without a
/// scheme or with a known scheme of hosts and no host. A scheme has two letters at least, so that a drive is none.

#include <traiklofox/strings.h>
#include <traiklofox/types.h>

/// A port's number; 0 where a URL has none and its scheme none by custom.
typedef WORD INTERNET_PORT;

/// The ports that schemes have by custom, and the number of none.
constexpr INTERNET_PORT INTERNET_INVALID_PORT_NUMBER = 0;
constexpr INTERNET_PORT INTERNET_DEFAULT_FTP_PORT = 21;
constexpr INTERNET_PORT INTERNET_DEFAULT_GOPHER_PORT = 70;
constexpr INTERNET_PORT INTERNET_DEFAULT_HTTP_PORT = 80;
constexpr INTERNET_PORT INTERNET_DEFAULT_HTTPS_PORT = 443;
constexpr INTERNET_PORT INTERNET_DEFAULT_SOCKS_PORT = 1080;

/// The schemes that are known, as Win32 numbers them. A URL of another has UNKNOWN; DEFAULT means "http" where a URL is
/// made; PARTIAL is not used.
enum INTERNET_SCHEME : int {
    INTERNET_SCHEME_PARTIAL = -2,
    INTERNET_SCHEME_UNKNOWN = -1,
    INTERNET_SCHEME_DEFAULT = 0,
    INTERNET_SCHEME_FTP,
    INTERNET_SCHEME_GOPHER,
    INTERNET_SCHEME_HTTP,
    INTERNET_SCHEME_HTTPS,
    INTERNET_SCHEME_FILE,
    INTERNET_SCHEME_NEWS,
    INTERNET_SCHEME_MAILTO,
    INTERNET_SCHEME_SOCKS,
    INTERNET_SCHEME_JAVASCRIPT,
    INTERNET_SCHEME_VBSCRIPT,
    INTERNET_SCHEME_RES,
    INTERNET_SCHEME_FIRST = INTERNET_SCHEME_FTP,
    INTERNET_SCHEME_LAST = INTERNET_SCHEME_RES,
};
typedef INTERNET_SCHEME* LPINTERNET_SCHEME;

/// Flags, with the meaning that each has for the functions that accept it.
constexpr DWORD ICU_ENCODE_PERCENT = 0x00001000;      ///< escapes "%" as well
constexpr DWORD ICU_BROWSER_MODE = 0x02000000;        ///< escapes nothing behind "?" or "#"
constexpr DWORD ICU_ENCODE_SPACES_ONLY = 0x04000000;  ///< escapes only blanks
constexpr DWORD ICU_NO_META = 0x08000000;             ///< leaves "." and ".." in the path
constexpr DWORD ICU_DECODE = 0x10000000;              ///< turns escapes into their characters
constexpr DWORD ICU_NO_ENCODE = 0x20000000;           ///< escapes nothing
constexpr DWORD ICU_USERNAME = 0x40000000;            ///< accepted, and ignored
constexpr DWORD ICU_ESCAPE = 0x80000000;              ///< see `InternetCrackUrl` and `InternetCreateUrl`

/// The parts of a URL.
struct URL_COMPONENTS {
    DWORD dwStructSize;       ///< sizeof(URL_COMPONENTS)
    LPSTR lpszScheme;         ///< "http", without a colon
    DWORD dwSchemeLength;     ///< of it, as of each part below, in characters
    INTERNET_SCHEME nScheme;  ///< its number
    LPSTR lpszHostName;       ///< an IPv6 address without its brackets
    DWORD dwHostNameLength;   ///< in characters
    INTERNET_PORT nPort;      ///< the one given, or the scheme's
    LPSTR lpszUserName;       ///< from the "//" to a ":" or the "@"
    DWORD dwUserNameLength;   ///< in characters
    LPSTR lpszPassword;       ///< from that ":" to the "@"
    DWORD dwPasswordLength;   ///< in characters
    LPSTR lpszUrlPath;        ///< from the "/" on
    DWORD dwUrlPathLength;    ///< in characters
    LPSTR lpszExtraInfo;      ///< from the "?" or "#" on
    DWORD dwExtraInfoLength;  ///< in characters
};
typedef URL_COMPONENTS* LPURL_COMPONENTS;

/// Takes a whole URL apart.
///
/// length      of `url`, or 0: up to the NUL
/// flags       ICU_DECODE or ICU_ESCAPE: escapes in the parts are turned into their characters, "%00" excepted. 0
///             leaves them.
/// components  `dwStructSize` must be right. For each part, a pointer and a length say what is wanted:
///             - a buffer and its size: the part is stored with a NUL, the length becomes the part's, without it;
///             - null and not 0: the pointer is set into `url`, which must outlive it, and the length to the part's,
///               which no NUL ends. Null for a user name or password that the URL does not have. Not with the flags
///               (EINVAL). A second call takes that pointer for a buffer: set it to null first.
///             - null and 0: the part is not wanted.
///             `nScheme` and `nPort` are always set; the port of a URL without one is its scheme's, or 0. Where the
///             extra information is not wanted, it is part of the path.
/// ERANGE: a buffer is too small; the lengths of those that are become what they need, with the NUL, and nothing
/// else is stored.
///
/// What stands behind a mailto:, news:, javascript: or vbscript: is one path.
TRAIKLOFOX_C_API BOOL InternetCrackUrl(LPCSTR url, DWORD length, DWORD flags, LPURL_COMPONENTS components);

/// Makes a URL of its parts, each the text of its length, or up to its NUL for a length of 0; null for none. Without
/// `lpszScheme`, `nScheme` names the scheme, and INTERNET_SCHEME_DEFAULT stands for http. The port is left out when it
/// is 0 or the scheme's. A host with a ":" in it gets brackets.
///
/// flags   ICU_ESCAPE: what a part may not hold is escaped, "%" included: in the user name and password also what would
///         end them, in the path also "?" and "#" if `lpszExtraInfo` is not null. Without it the parts are taken as
///         they are.
/// url     gets it with a NUL; may be null, to ask for the size
/// length  the size of `url`; becomes the length without the NUL, or, with ERANGE, the size needed
/// EINVAL also for a password without a user name, and an unknown scheme without a text.
TRAIKLOFOX_C_API BOOL InternetCreateUrl(LPURL_COMPONENTS components, DWORD flags, LPSTR url, LPDWORD length);

/// Brings a URL, whole or relative, into one form: no blanks or control characters around it, scheme and host in lower
/// case, slashes for backslashes, "." and ".." resolved (ICU_NO_META: not), a "/" for an empty path behind a host,
/// and escapes for what a URL may not hold (control characters, blanks, quotes, <>\^`{|}, bytes above 126).
/// ICU_DECODE turns all escapes but "%00" into characters before. The other flags say what is escaped.
///
/// buffer  gets it with a NUL; may be null, to ask for the size
/// length  the size of `buffer`; becomes the length without the NUL, or, with ERANGE, the size needed
TRAIKLOFOX_C_API BOOL InternetCanonicalizeUrl(LPCSTR url, LPSTR buffer, LPDWORD length, DWORD flags);

/// Resolves a relative URL against a whole one (RFC 3986, 5.2), and brings the result into one form. Arguments as of
/// `InternetCanonicalizeUrl`. EINVAL also when the base has nothing to resolve against, as a mailto:.
TRAIKLOFOX_C_API BOOL InternetCombineUrl(LPCSTR base, LPCSTR relative, LPSTR buffer, LPDWORD length,
                                         DWORD flags);

/// Kinds of servers, as `AfxParseURL` tells them.
constexpr DWORD INTERNET_SERVICE_FTP = 1;
constexpr DWORD INTERNET_SERVICE_GOPHER = 2;
constexpr DWORD INTERNET_SERVICE_HTTP = 3;
constexpr DWORD AFX_INET_SERVICE_FTP = INTERNET_SERVICE_FTP;
constexpr DWORD AFX_INET_SERVICE_GOPHER = INTERNET_SERVICE_GOPHER;
constexpr DWORD AFX_INET_SERVICE_HTTP = INTERNET_SERVICE_HTTP;
constexpr DWORD AFX_INET_SERVICE_UNK = 0x1000;
constexpr DWORD AFX_INET_SERVICE_FILE = AFX_INET_SERVICE_UNK + 1;
constexpr DWORD AFX_INET_SERVICE_MAILTO = AFX_INET_SERVICE_UNK + 2;
constexpr DWORD AFX_INET_SERVICE_MID = AFX_INET_SERVICE_UNK + 3;
constexpr DWORD AFX_INET_SERVICE_CID = AFX_INET_SERVICE_UNK + 4;
constexpr DWORD AFX_INET_SERVICE_NEWS = AFX_INET_SERVICE_UNK + 5;
constexpr DWORD AFX_INET_SERVICE_NNTP = AFX_INET_SERVICE_UNK + 6;
constexpr DWORD AFX_INET_SERVICE_PROSPERO = AFX_INET_SERVICE_UNK + 7;
constexpr DWORD AFX_INET_SERVICE_TELNET = AFX_INET_SERVICE_UNK + 8;
constexpr DWORD AFX_INET_SERVICE_WAIS = AFX_INET_SERVICE_UNK + 9;
constexpr DWORD AFX_INET_SERVICE_AFS = AFX_INET_SERVICE_UNK + 10;
constexpr DWORD AFX_INET_SERVICE_HTTPS = AFX_INET_SERVICE_UNK + 11;

/// Takes a whole URL apart: the kind of server (AFX_INET_SERVICE_UNK for an unknown scheme), its host, the object on it
/// ("/" and all that follows; never empty behind a host) and its port. Returns TRUE; FALSE, with EINVAL and
/// nothing stored, for what is no URL. May throw `std::bad_alloc`.
TRAIKLOFOX_API BOOL AfxParseURL(LPCTSTR url, DWORD& serviceType, CString& server, CString& object,
                                INTERNET_PORT& port);

/// The same with the user name and the password. With ICU_DECODE or ICU_ESCAPE in `flags`, escapes are turned into
/// their characters, "%00" excepted.
TRAIKLOFOX_API BOOL AfxParseURLEx(LPCTSTR url, DWORD& serviceType, CString& server, CString& object,
                                  INTERNET_PORT& port, CString& userName, CString& password, DWORD flags = 0);
