// Request heads through the parser, as the listener reads them: a head that parses is parsed the same from
// any longer input and found incomplete in any shorter one, a refusal is one of the three, and the relay
// answers a parsed request with a whole response of a status it uses.
#include "fuzz_support.h"

#include "src/korb_rdv_health.h"
#include "src/korb_rdv_http.h"
#include "src/korb_rdv_http_service.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    static KorbRdvHealth health(nullptr, [] { return KorbRdvHealth::Figures(); });
    static KorbRdvHttpService service(nullptr, &health);
    using R = KorbRdvHttpRequest;
    const QByteArray bytes(reinterpret_cast<const char *>(data), int(size));
    R request;
    int headSize = -1;
    const R::Verdict verdict = R::parse(bytes, &request, &headSize);
    FUZZ_CHECK(verdict == R::Incomplete || verdict == R::Complete || verdict == R::BadRequest ||
               verdict == R::UriTooLong || verdict == R::HeadersTooLarge);
    if (verdict == R::Incomplete)
        FUZZ_CHECK(bytes.size() <= R::MaxHeadSize && headSize == -1);
    if (verdict != R::Complete)
        return 0;
    FUZZ_CHECK(headSize <= R::MaxHeadSize && bytes.mid(headSize - 4, 4) == "\r\n\r\n");
    FUZZ_CHECK(request.path.startsWith('/') && request.target.startsWith(request.path));
    FUZZ_CHECK(request.headers.size() <= R::MaxHeaders);
    R again;
    FUZZ_CHECK(R::parse(bytes.left(headSize), &again) == R::Complete && again.target == request.target &&
               again.headers == request.headers);
    // Cut anywhere, and where a partial line end or blank line stands last.
    uint32_t state = uint32_t(size) * 2654435761u + 1u;
    const int lineEnd = bytes.indexOf("\r\n");
    for (const int cut : {Fuzz::nextSize(state, headSize) - 1, lineEnd + 1, headSize - 3, headSize - 1})
        FUZZ_CHECK(R::parse(bytes.left(cut), &again) == R::Incomplete);
    const QByteArray response = service.answer(request, size & 1);
    const int status = response.mid(9, 3).toInt();
    FUZZ_CHECK(response.startsWith("HTTP/1.1 ") &&
               (status == 200 || status == 404 || status == 405 || status == 503));
    const int end = response.indexOf("\r\n\r\n") + 4;
    const int length =
        response.mid(response.indexOf("Content-Length: ") + 16, 12).split('\r').first().toInt();
    FUZZ_CHECK(end >= 4 && response.size() - end == (request.method == "HEAD" ? 0 : length));
    return 0;
}
