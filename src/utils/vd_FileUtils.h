#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

#include <optional>

// The files the agent and the WebApp exchange inside a StorageRoot, and how they are read and written.
class vd_FileUtils
{
public:
    // --- Storage layout and JSON files ---

    // "<root>/<relative>" when every folder on the way below the root is a real folder, not a symbolic
    // link; missing ones are created when asked. None when one is missing (not creating), cannot be made,
    // or is a link (with one log line per path): clean-ups delete and copies land in these folders, so a
    // link planted in the cloud folder must not lead them anywhere else.
    static std::optional<QString> storageRootOwnFolder(const QString &storageRoot, const QString &relative,
                                                       bool create);
    // "<root>/data.vdldata", created with its parents when missing; "" when it is a link.
    static QString getDataFolderPath(const QString &storageRoot);
    // "<root>/data.vdldata/computers", created with its parents on every call; "" when a link is on the way.
    static QString getRootsPath(const QString &storageRoot);
    // "<base>/<year>/<month>" of the given moment in local time, month without a leading zero. Builds the
    // path only; callers create the folders.
    static QString getFileByDatePath(const QString &baseFolder,
                                     const QDateTime &now = QDateTime::currentDateTime());

    // The file's top-level JSON object. Never fails: a missing or unreadable file gives an empty object
    // silently, and so does anything but a regular file (a pipe is never opened); a file over 16 MiB gives
    // an empty object and a log line unread; text that is not a JSON object gives an empty object and one
    // log line.
    static QJsonObject readJsonFileMutableDictionary(const QString &path);
    // The same rule for bytes already in memory. A leading UTF-8 byte-order mark is skipped.
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

    // --- Finding the StorageRoots ---
    // Every call reads the cloud client's files and checks the folders again; only the deep search's
    // answer is remembered (under "lastBestPath").

    // An object together with the order in which its keys stand in the file.
    struct OrderedJsonObject
    {
        QStringList keys;
        QJsonObject object;
    };

    // "~/.dropbox/host.db" as text, or none when there is no such file.
    static std::optional<QString> getHostFileContents();
    // The legacy client's folder: the host file's second line, base64-decoded, when something exists there.
    static std::optional<QString> dropboxPathOLD();
    // "~/.dropbox/info.json" with its accounts in file order, or none when there is no such file.
    static std::optional<OrderedJsonObject> getDropboxInfoJSONDict();
    // Every Dropbox folder: the account file's paths; else the legacy folder followed by the home folder's
    // "Dropbox …" folders; else "~/Dropbox" when it exists. May be empty.
    static QStringList dropBoxFolderGETAll();
    // Appends the home folder's directories named "Dropbox …" that the list does not hold yet.
    static void digForDropboxFolders(QStringList &folders);
    // The folders of the "CloudFolders" setting that exist, as absolute clean paths, in the setting's order.
    static QStringList cloudFolders();
    // The first Dropbox folder whose text begins the path (a plain prefix test); else the cloud folder that
    // holds the path; else "~/Dropbox" when it exists; else "".
    static QString dropBoxFolderGET(const QString &path);
    // The best folder named "vandrel" (any case) down to depth 5 below the folder: a fresh marker (under
    // 3000 s old) wins at once and is remembered in "lastBestPath", which answers every later call while
    // it exists; else the newest marker; else the last such folder seen. Slow: walks the tree.
    static std::optional<QString> findVandrelFolder(const QString &folder,
                                                    const QDateTime &now = QDateTime::currentDateTimeUtc());
    static void resetVandrelFolderCache();
    // "<Dropbox>/Apps/vandrel" when its marker file exists, else the deep search's answer.
    static std::optional<QString> dropBoxFolderVandrel(const QString &dropboxFolder);
    static QStringList dropBoxFolderVandrelAll();
    // "~/GDrive" when it exists.
    static std::optional<QString> googleDriveFolder();
    // "~/GDrive/Apps/vandrel", created when missing; none without a Google Drive folder.
    static std::optional<QString> googleDriveFolderVandrel();
    // All StorageRoots: the Dropbox ones in their order, then the Google Drive one, then those of the cloud
    // folders (found as in a Dropbox folder), each root once.
    static QStringList storageFoldersDropBoxGDriveEtc();
    // "<root>/uploads", created when missing; "" for an empty root or a link on the way.
    static QString getDefaultDropBoxUploadsFolderROOT(const QString &storageRoot);
    // This month's uploads folder of the root, created when missing; "" for an empty root or a link on the
    // way.
    static QString getDefaultDropBoxUploadsFolder(const QString &storageRoot,
                                                  const QDateTime &now = QDateTime::currentDateTime());
    // This month's folder under "<Downloads>/From Dropbox", created when missing.
    static QString getDefaultMoveFromFolder(const QDateTime &now = QDateTime::currentDateTime());

    // --- Computer identity ---

    // A new upper-case UUID text; "UUID failed" when none can be made.
    // Bytes from the system's secure generator; zero bytes (and two log lines) if it fails.
    static QByteArray randomDataOfLength(quint32 length);
    // 24 secure random bytes as 32 characters of URL-safe base64.
    static QString randomURLSafeString();
    // The machine id, read once per process; the computer name when the system has none.
    static QString getPlatformUUID();
    static QString prefsKeyForComputerID();
    static QString keyForComputerPassword();
    // Whether a computer password is stored: none when the secret store cannot be read (failure, when
    // given, then says why), which callers must treat as closed, never as "no password".
    static std::optional<bool> computerPasswordIsSet(QString *failure = nullptr);
    // The computer id from the user defaults, made on first use; threads that ask at once get one id.
    static QString getComputerUUID();
    // The version the WebApp is told; computed once.
    static QString getAppVersionString();
    // The rule behind it: the short version when it has at most 20 characters, else the build version.
    static QString appVersionString(const QString &shortVersion, const QString &buildVersion);

    // --- The computer info file in every StorageRoot ---

    // Forgets the deep search's answer, then rewrites the info file of every StorageRoot after cleaning up.
    static void updateComputerInfo();
    // Writes the info file of every StorageRoot where it is missing; leaves present ones alone.
    static void ensureComputerInfo();
    // Writes "<root>/data.vdldata/computers/<computer id>.json" after the four clean-ups; with checkOnly,
    // does nothing at all when the file exists. Does nothing for an empty root.
    static void writeComputerInfoFileTo(const QString &storageRoot, bool checkOnly,
                                        const QDateTime &now = QDateTime::currentDateTimeUtc());
    // The clean-ups. Each lists its folder once and moves what it removes to the trash.
    static void getRidOfConflictedCopyFiles(const QString &storageRoot);
    static void getRidOfOldComputerFiles(const QString &storageRoot,
                                         const QDateTime &now = QDateTime::currentDateTimeUtc());
    static void getRidOfDuplicateComputerFiles(const QString &storageRoot);
    static void getRidOfDuplicateSessionsAreHereFiles(const QString &storageRoot);
};
