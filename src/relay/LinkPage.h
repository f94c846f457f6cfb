#pragma once

#include <QByteArray>

#include <string_view>

// The LinkService page: a shared file link, read from its own address, shown as what it describes (name,
// size or entry count, the folders it was in) with the link-scheme URL that hands it to the agent. Every
// text on the page comes from the address, which anyone may have written, so all of it is escaped and none
// of it is logged.
class LinkPage
{
public:
    struct Reply
    {
        int status; // 200, or 400 for an address that is not a link
        QByteArray html;
    };

    // The page for `encodedLink`, the part of the address after the page's prefix ("p/SIZE/CRC/…/NAME" or
    // "f/COUNT/FOLDER/…/NAME"), still percent-encoded.
    static Reply render(std::string_view encodedLink);

    // What the page may load and do: its own style sheet and script, nothing else.
    static constexpr const char *kContentSecurityPolicy =
        "default-src 'none'; style-src 'self'; script-src 'self'; img-src 'none'; connect-src 'none'; "
        "form-action 'none'; base-uri 'none'; frame-ancestors 'none'";
};
