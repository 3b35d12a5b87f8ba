#pragma once

#include <string>
#include <vector>

/// A drive letter that a folder stands behind while this lives. Only under Wine, whose mount
/// manager can be told to have such a drive; like a real one it sends no interface notification.
/// Does not touch letters that are in use.
/// Thread: any.
class RemovableDrive {
public:
    enum class Kind : unsigned long { kRemovable = 2, kFixed = 3, kCdrom = 5 };  // GetDriveTypeW

    /// Whether drives can be made here; where not, tests skip.
    static bool IsSupported();

    /// What is in the drive from its first moment on.
    struct Medium {
        std::vector<std::wstring> files;  ///< as for MakeFile()
        bool isMissing;                   ///< out of the drive, until Insert()
    };

    /// Makes the drive `letter` (upper case).
    /// Throws std::system_error.
    explicit RemovableDrive(wchar_t letter, Kind kind = Kind::kRemovable,
                            const Medium& medium = {{}, false});

    /// The drive goes, with all that is on its medium.
    ~RemovableDrive();

    RemovableDrive(const RemovableDrive&) = delete;
    RemovableDrive& operator=(const RemovableDrive&) = delete;

    /// The drive goes, and its medium stays for Appear().
    void Disappear();
    void Appear();

    /// Takes the medium out: the drive is still there.
    void Eject();
    void Insert();

    /// Makes an empty file on the medium; `path` is relative to its root, such as
    /// L"MISC\\database.db". Folders are made as needed.
    void MakeFile(const std::wstring& path) const;

private:
    std::wstring folder;   // the medium
    std::wstring ejected;  // where it is while it is not in the drive
    std::string hostPath;  // of `folder`, as Wine's host knows it
    wchar_t letter;
    Kind kind;
    bool present = false;
};
