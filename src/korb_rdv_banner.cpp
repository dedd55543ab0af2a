#include "src/korb_rdv_banner.h"

#include "korb_version.h"
#include "src/korb_rdv_settings.h"

#include <QLibraryInfo>
#include <QLocale>
#include <QObject>
#include <QSysInfo>

namespace {

QString cpuFlag(bool on)
{
    return on ? QObject::tr("Да") : QObject::tr("Нет");
}

} // namespace

namespace Korb {

QStringList bannerLines(const QString &version)
{
    const QString build = QStringLiteral(__DATE__ " " __TIME__);
    const QLatin1String program(ProgramName);
    QStringList lines;
    lines << QObject::tr("%1 | Версия ПО: %2 v.%3 (сборка от %4) | Revision SVN %5 | Powered by Qt%6-%7")
                 .arg(program, QStringLiteral("Korb"), version, build, QStringLiteral(KORB_REVISION),
                      QStringLiteral(QT_VERSION_STR), QStringLiteral(KORB_COMPILER_TAG));
    lines << QObject::tr("Версия фреймворка Qt:\t%1").arg(QLatin1String(qVersion()));
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    lines << QObject::tr("Тип лицензирования Qt:\t%1").arg(QLibraryInfo::licensee());
    QT_WARNING_POP
    lines << QObject::tr("Версия %1:\t%2").arg(program, version);
    lines << QObject::tr("Ревизия %1:\tr%2").arg(QStringLiteral("SVN"), QStringLiteral(KORB_REVISION));
    lines << QObject::tr("Компилятор:\t%1%2").arg(QStringLiteral("gcc"), QStringLiteral(__VERSION__));
    lines << QObject::tr("Скомпилировано для:\t%1").arg(QSysInfo::buildCpuArchitecture());
    lines << QObject::tr("Время сборки:\t%1").arg(build);
    const QLocale locale;
    lines << QObject::tr("Установленная локаль:\t%1 (%2-%3)")
                 .arg(locale.name(), locale.nativeLanguageName(), locale.nativeCountryName());

    struct Feature
    {
        const char *name;
        bool on;
    };
    __builtin_cpu_init();
    const Feature features[] = {
        {"SSE2", __builtin_cpu_supports("sse2") != 0},
        {"SSSE3", __builtin_cpu_supports("ssse3") != 0},
        {"SSE4.1", __builtin_cpu_supports("sse4.1") != 0},
        {"SSE4.2", __builtin_cpu_supports("sse4.2") != 0},
        {"AVX", __builtin_cpu_supports("avx") != 0},
        {"AVX2", __builtin_cpu_supports("avx2") != 0},
        {"AVX512F", __builtin_cpu_supports("avx512f") != 0},
        {"AVX512BW", __builtin_cpu_supports("avx512bw") != 0},
        {"AVX512CD", __builtin_cpu_supports("avx512cd") != 0},
        {"AVX512DQ", __builtin_cpu_supports("avx512dq") != 0},
        {"AVX512ER", __builtin_cpu_supports("avx512er") != 0},
        {"AVX512IFMA", __builtin_cpu_supports("avx512ifma") != 0},
        {"AVX512PF", __builtin_cpu_supports("avx512pf") != 0},
        {"AVX512VBMI", __builtin_cpu_supports("avx512vbmi") != 0},
        {"AVX512VL", __builtin_cpu_supports("avx512vl") != 0},
    };
    for (const Feature &f : features)
        lines << QObject::tr("Поддержка %1:\t%2").arg(QLatin1String(f.name), cpuFlag(f.on));
    return lines;
}

} // namespace Korb
