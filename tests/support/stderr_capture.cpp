#include "support/stderr_capture.h"

#include <cstdio>
#include <unistd.h>

StderrCapture::StderrCapture()
{
    m_file.open();
    std::fflush(stderr);
    m_saved = ::dup(STDERR_FILENO);
    ::dup2(m_file.handle(), STDERR_FILENO);
}

StderrCapture::~StderrCapture()
{
    std::fflush(stderr);
    ::dup2(m_saved, STDERR_FILENO);
    ::close(m_saved);
}

QByteArray StderrCapture::text()
{
    std::fflush(stderr);
    QFile f(m_file.fileName());
    f.open(QIODevice::ReadOnly);
    return f.readAll();
}
