#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

// Uniform type identifiers over shared-mime-info. Every MIME type the index meets gets a small code; a code
// knows its own identifier ("public.png") and the tree it conforms to ("public.png", "public.image",
// "public.data", "public.content", "public.item"). Unknown MIME types become "dyn.<mime>" under
// "public.data". Process-wide and thread-safe; codes are never reused within a process.
class ContentTypes
{
public:
    using Code = std::uint16_t;
    static constexpr Code kFolder = 0;

    static ContentTypes &instance();

    // The code of a MIME type name (registered on first use). Cost: a hash lookup under a mutex.
    Code codeForMime(const QString &mimeName);
    // The type of a file guessed from its name alone (glob rules, cached by suffix); folders are kFolder.
    Code codeForFileName(std::string_view name, bool isFolder);

    QString mimeName(Code code) const;
    std::size_t count() const;
    QString identifier(Code code) const;
    QStringList tree(Code code) const;
    // One flag per registered code: does its identifier (or, with `wholeTree`, any identifier of its tree)
    // satisfy `accept`? Codes registered later are answered false.
    template<typename Accept> std::vector<bool> codesMatching(bool wholeTree, Accept accept) const
    {
        std::lock_guard lock(m_lock);
        std::vector<bool> result(m_types.size());
        for (size_t i = 0; i < m_types.size(); ++i) {
            if (wholeTree) {
                for (const QString &id : m_types[i].tree)
                    result[i] = result[i] || accept(id);
            } else {
                result[i] = accept(m_types[i].tree.front());
            }
        }
        return result;
    }

    // The identifier a MIME type maps to, and that identifier's ancestors (without the MIME hierarchy).
    static QString identifierForMime(const QString &mimeName);
    static QStringList identifierParents(const QString &identifier);

private:
    ContentTypes();
    struct Type
    {
        QString mime;
        QStringList tree; // own identifier first
    };
    Code registerLocked(const QString &mimeName);

    mutable std::mutex m_lock;
    std::vector<Type> m_types;                        // guarded by m_lock
    std::unordered_map<QString, Code> m_byMime;       // guarded by m_lock
    std::unordered_map<std::string, Code> m_bySuffix; // guarded by m_lock
};
