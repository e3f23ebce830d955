// The error codes of the library's exceptions, by name: one place declares them all.  The
// library, its tests and its hosts write the names; the numbers are what getErrorId() and the
// JSON answer ("errorCode") carry to a web client, so they never change.
//
//     catch (usermanagement::UMException& e) {
//         if (e.getErrorId() == usermanagement::UMError::UserNotFound) ...
//     }
//
// Each family is a struct holding an unscoped enumeration, so that a code converts to the int
// that the exception constructors take, and reads as Family::Name.
#pragma once

namespace usermanagement {

// UMException: account-level failures (JSON class code 0).
struct UMError {
    enum : int {
        UserAlreadyExists = 0,
        PasswordError = 1,  // a password or hash the account files cannot hold
        RoleError = 2,      // a group, role or profile that does not resolve
        MainAccountUnremovable = 3,
        MainAccountUndisable = 4,
        UserNotFound = 5,
        MaxUsersReached = 6,  // no free user id in the managed range
        BadUserName = 7,
        RemoveUserForbidden = 8,
        MissingParameter = 9,
        // The account object no longer names the stored account it was read from: its name was
        // changed on the object, or the account was renamed, removed or replaced since.  Look
        // the account up again.
        StaleAccount = 41,
        // The account's uid or name is in more than one entry of passwd, or its name in more
        // than one of shadow (another tool stored it twice).  Nothing is changed until the extra
        // entries are removed by hand: any change would hit the wrong twin or both.
        DuplicatedAccount = 43,
        // The account is in passwd but not in shadow, or the reverse (an operation died between
        // its two files, or another tool edited one).  Nothing is changed until the missing entry
        // is added or the other removed.
        HalfStoredAccount = 44,
        // No log sink, profile catalogue or configuration provider is installed.
        NothingInstalled = 40,
    };
};

// UMSystemErrorException: the account files and the system database.
struct UMSystemError {
    enum : int {
        FileContents = 10,     // reading or writing the entries of an account file
        FilesLocked = 11,      // the password-file lock could not be taken
        DatabaseLookup = 12,   // the account or group database could not answer
        FileTransaction = 13,  // preparing or installing a file update transaction
        // The failed-login count could not be reset: the tally tool did not start, failed, or
        // left the count in place.  The operation that needed it wrote nothing.
        TallyReset = 47,
    };
};

// PMException: switching the identity of a thread.
struct PMError {
    enum : int {
        UserNotFound = 14,
        UpdatePrivilegeFailed = 15,
        UpdateUserFailed = 16,
        MemoryAllocation = 17,
    };
};

// UpdatePasswordException: a password change refused.  Codes from FirstQualityRule to
// LastQualityRule name the password-quality rule that refused it.
struct UpdatePasswordError {
    enum : int {
        InvalidCredentials = 18,
        NewPasswordTooLong = 19,
        PasswordSecurityRules = 20,
        InvalidNewPassword = 21,
        // The password-quality rules, by the rule the modules' text names.
        FirstQualityRule = 22,
        SameAsOld = 22,  // also: differs from the old one by case changes only
        Palindrome = 23,
        TooSimilar = 25,
        ContainsUserName = 26,
        ContainsRealName = 27,
        ForbiddenWords = 28,
        TooFewDigits = 29,
        TooFewUppercase = 30,
        TooFewLowercase = 31,
        TooFewOthers = 32,  // non-alphanumeric characters
        TooShort = 33,
        Rotated = 34,
        TooFewClasses = 35,
        TooManyRepeats = 36,       // the same character consecutively
        TooManyClassRepeats = 37,  // characters of the same class consecutively
        Monotonic = 38,
        Dictionary = 39,
        LastQualityRule = 39,
    };
};

}  // namespace usermanagement

namespace authnz {

// AuthNZException: setting a PAM session up (JSON class code 1, as the two below).
struct AuthNZError {
    enum : int {
        RootNotAllowed = 0,
        InitPamFailed = 1,
        SetUserUidFailed = 2,
        InitError = 3,
        InvalidPAM = 4,
    };
};

// AuthenticationException: the caller could not be authenticated.
struct AuthenticationError {
    enum : int {
        InvalidCredentials = 200,
        NoToken = 201,
        InvalidToken = 202,
        StrongAuthenticationWrongPassword = 203,
        TokenRefused = 204,
    };
};

// AuthorizationException: the caller may not do what it asked.
struct AuthorizationError {
    enum : int {
        ExpiredCredentials = 301,
        NotAuthorized = 302,
        ConcurrentSession = 303,
        StrongAuthenticationWrongPassword = 304,
        // An account outside the managed range (root, the web server's account, daemons and
        // service accounts) may be changed by the process's own root identity only, never by a
        // thread acting as an account.
        SystemAccount = 305,
    };
};

}  // namespace authnz
