#pragma once

#include <string>

/// A drive letter that a folder stands behind while this lives. Only under Wine, whose mount
/// manager can be told to have such a drive; like a real one it sends no interface notification.
/// Does not touch letters that are in use.
/// Thread: any.
class RemovableDrive {
public:
    enum class Kind : unsigned long { kRemovable = 2, kFixed = 3, kCdrom = 5 };  // GetDriveTypeW

    /// Whether drives can be made here; where not, tests skip.
    static bool IsSupported();

    /// Makes the drive `letter` (upper case) with an empty medium in it.
    /// Throws std::system_error.
    explicit RemovableDrive(wchar_t letter, Kind kind = Kind::kRemovable);

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
    std::wstring folder;  // the medium
    std::wstring ejected;
    wchar_t letter;
    Kind kind;
    bool present = false;
};
