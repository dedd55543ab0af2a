#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>

struct KorbRdvHttpRequest;
class KorbRdvHealth;

// What the relay's ports answer to a request that is no WebSocket upgrade:
// the viewer page (the files compiled into the program from tools/viewer,
// and nothing of the file system), the figures for Prometheus at /metrics,
// and whether the source is live at /healthz. GET and HEAD only; every
// response ends its connection.
class KorbRdvHttpService : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvHttpService)

public:
    // `health` gives the figures.
    explicit KorbRdvHttpService(QObject *parent, const KorbRdvHealth *health);

    // The whole response to `request`, which came over TLS when `tls`.
    QByteArray answer(const KorbRdvHttpRequest &request, bool tls) const;

private:
    struct Page
    {
        QByteArray type;
        QByteArray body;
    };

    const KorbRdvHealth *const m_health;
    QHash<QByteArray, Page> m_pages; // by path
};
