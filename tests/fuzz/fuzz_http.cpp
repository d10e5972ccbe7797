// SPDX-License-Identifier: MIT
//
// What a client sends to "device-db serve": whatever the pieces are in which it comes, the requests and refusals are
// the same, and nothing that was not asked for in the allowed form comes out.
#include "serve/http_request.h"

#include <cstdlib>
#include <cstring>

using namespace device_db;

namespace
{

void require(bool holds)
{
    if (!holds)
        std::abort();
}

// All requests, one after the other, and the refusal at the end.
QByteArray read(HttpParser &parser, const QByteArray &bytes, int piece)
{
    QByteArray all;
    for (int at = 0; at < bytes.size(); at += piece) {
        parser.add(bytes.mid(at, piece));
        while (const auto request = parser.next()) {
            require(request->path.startsWith('/') && !request->host.isEmpty());
            for (const QByteArray &text :
                 {request->method, request->path, request->query, request->host, request->origin, request->cookie}) {
                for (const char c : text)
                    require((c >= ' ' && c < 0x7f) || c == '\t');
                all += text + '\n';
            }
            (void)request->cookieNamed("a");
            if (const auto pairs = pairsOf(request->query)) {
                for (const auto &[name, value] : *pairs)
                    require(!name.isEmpty() && !name.contains('\0') && !value.contains('\0'));
            }
        }
        require(parser.refusal() == 0 || !parser.isWithinRequest());
    }
    return all + QByteArray::number(parser.refusal());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size)
{
    if (size < 1 || size > 4 * HttpParser::longestHead)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data + 1), int(size) - 1);
    HttpParser inOnePiece;
    HttpParser inPieces;
    // A head that is too long may be refused at another place, depending on how much of it has come.
    const QByteArray whole = read(inOnePiece, bytes, int(bytes.size()) + 1);
    const QByteArray pieces = read(inPieces, bytes, 1 + data[0] % 64);
    require(whole == pieces || inOnePiece.refusal() == 431 || inOnePiece.refusal() == 414 ||
            inPieces.refusal() == 431 || inPieces.refusal() == 414);
    return 0;
}
