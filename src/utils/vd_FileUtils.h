#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// The files the agent and the WebApp exchange inside a StorageRoot, and how they are read and written.
class vd_FileUtils
{
public:
    // --- Storage layout and JSON files ---

    // "<root>/data.vdldata", created with its parents when missing.
    static QString getDataFolderPath(const QString &storageRoot);
    // "<root>/data.vdldata/computers", created with its parents on every call.
    static QString getRootsPath(const QString &storageRoot);
    // "<base>/<year>/<month>" of the given moment in local time, month without a leading zero. Builds the
    // path only; callers create the folders.
    static QString getFileByDatePath(const QString &baseFolder,
                                     const QDateTime &now = QDateTime::currentDateTime());

    // The file's top-level JSON object. Never fails: a missing or unreadable file gives an empty object
    // silently; text that is not a JSON object gives an empty object and one log line.
    static QJsonObject readJsonFileMutableDictionary(const QString &path);
    // The same rule for bytes already in memory.
    static QJsonObject jsonObjectFromBytes(const QByteArray &bytes);
    // Indented JSON, or none for a value that is not an object or an array.
    static std::optional<QByteArray> JSONDataFromObj(const QJsonValue &value);
    // Replaces the file atomically with the indented JSON of the value; failures write nothing.
    static void writeJsonFile(const QJsonValue &value, const QString &path);
    // The relay envelope: URL-safe base64 of the zlib stream of the compact JSON; none for a value that
    // cannot be serialised.
    static std::optional<QString> base64URLSafeZlibJSON(const QJsonValue &value);
    // Seconds since 1970 with the fraction kept.
    static double JSONDate(const QDateTime &date);
    // The date of a JSON number or numeric text; anything else reads as 1970.
    static QDateTime dateFromJSON(const QJsonValue &value);

    // --- StorageRoots: the "Apps/vandrel" folders in the user's Dropbox and Google Drive folders ---
    // Nothing is cached but "lastBestPath": every call reads the Dropbox client's files and checks the
    // folders afresh. Safe from any thread.

    // One account of the Dropbox client's account file; `path` is empty when the account names none.
    struct DropboxAccount
    {
        QString name;
        QString path;
    };

    // readJsonFileMutableDictionary for the files the WebApp and other computers put into a StorageRoot,
    // whose size nobody here controls: a file over 1 MiB reads as an empty object without being read.
    static QJsonObject readSmallJsonFile(const QString &path);

    // "~/.dropbox/host.db" as UTF-8 text; none when it does not exist or is too large to be that file.
    static std::optional<QString> getHostFileContents();
    // The Dropbox folder the legacy host file names on its second line (standard base64), when something
    // exists at that path.
    static std::optional<QString> dropboxPathOLD();
    // The accounts of "~/.dropbox/info.json" in the file's own order; none when the file does not exist, no
    // accounts when it is not a JSON object (logged).
    static std::optional<QList<DropboxAccount>> getDropboxInfoJSONDict();
    // Every Dropbox folder, in order: the account file's folders; else the legacy host file's folder
    // followed by the home folder's "Dropbox …" folders; else "~/Dropbox" when it exists. Can be empty.
    static QStringList dropBoxFolderGETAll();
    // Appends each folder of the home folder whose name begins with "Dropbox " (by name) that the list
    // does not hold yet.
    static void digForDropboxFolders(QStringList &folders);
    // The first Dropbox folder whose path is a text prefix of `path` (not a path-component test); else
    // "~/Dropbox" when it exists, whether or not it holds `path`; else "".
    static QString dropBoxFolderGET(const QString &path);

    // The deep search below a Dropbox folder whose app folder is not at "Apps/vandrel": folders named
    // "vandrel" in any case, down to depth 5. A marker newer than 3000 seconds before `now` wins at once and
    // is remembered under "lastBestPath", which is answered first on later calls whatever folder is asked
    // about; else the newest marker wins, else the last folder of that name. Walks the whole tree to depth
    // 5 (names and folder flags only), so it is the one slow call here.
    static std::optional<QString> findVandrelFolder(const QString &dropboxFolder,
                                                    const QDateTime &now = QDateTime::currentDateTimeUtc());
    // Forgets "lastBestPath" so that the next deep search walks again.
    static void resetVandrelFolderCache();
    // The StorageRoot inside one Dropbox folder: "Apps/vandrel" when its marker file exists (one existence
    // test), else the deep search's answer when something exists there. None for "".
    static std::optional<QString> dropBoxFolderVandrel(const QString &dropboxFolder);
    // The StorageRoots of all Dropbox folders, in their order.
    static QStringList dropBoxFolderVandrelAll();
    // "~/GDrive" when it exists.
    static std::optional<QString> googleDriveFolder();
    // "~/GDrive/Apps/vandrel", created when missing (failures ignored); none without "~/GDrive".
    static std::optional<QString> googleDriveFolderVandrel();
    // Every StorageRoot in the order the whole agent walks them: the Dropbox ones, then Google Drive's.
    static QStringList storageFoldersDropBoxGDriveEtc();

    // "<root>/uploads", created when missing; "" for no root.
    static QString getDefaultDropBoxUploadsFolderROOT(const QString &storageRoot);
    // This month's folder below "<root>/uploads", created when missing.
    static QString getDefaultDropBoxUploadsFolder(const QString &storageRoot);
    // This month's folder below "From Dropbox" in the user's Downloads folder, created when missing.
    static QString getDefaultMoveFromFolder();

    // --- This computer's identity ---

    // That many bytes from the system's secure random generator; zero bytes, with log lines, if it fails.
    static QByteArray randomDataOfLength(quint32 length);
    // 24 random bytes as URL-safe base64: 32 characters, no padding.
    static QString randomURLSafeString();
    // The machine id; the computer name, logged once, when the system has none. Computed once per process.
    static QString getPlatformUUID();
    // "ComputerUUID_" + platform id: the settings key of the computer id.
    static QString prefsKeyForComputerID();
    // "computer_password_" + platform id: the keychain key of the computer password.
    static QString keyForComputerPassword();
    // The computer id, made and stored on first use. Threads asking at once all get the one id that was
    // stored: making it happens under one process-wide lock. Costs a settings read, two the first time.
    static QString getComputerUUID();
    // The version the agent announces: the application's version when set and at most 20 characters, else
    // the version it was built as. Computed once per process.
    static QString getAppVersionString();
};
