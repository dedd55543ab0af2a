#pragma once

#include <QByteArray>
#include <QTemporaryFile>

// Redirects the process's standard error into a temporary file for the
// lifetime of the object, so tests can read what went to the console.
class StderrCapture
{
public:
    StderrCapture();
    ~StderrCapture();
    // Everything written to standard error since construction.
    QByteArray text();

private:
    QTemporaryFile m_file;
    int m_saved = -1;
};
