#include "Dovel/transport/LoginHandshake.h"

#include "Dovel/Version.h"

#include "Basalt/Trace.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QRegularExpression>

namespace Dovel {

namespace {

const QString UserName = QStringLiteral("pavro");
const QString WrongLogin = QStringLiteral("Wrong username or password");
constexpr int ChallengeSize = 64;
constexpr int DigestSize = 16;

// The longest part of a stranger's greeting that a failure quotes.
constexpr int QuotedGreetingChars = 40;

// Why a greeting that is not ours failed: a peer that hung up before greeting (a
// server that does not admit us closes at once) or one that said something else.
PeerFailure greetingFailure(const QString& greeting, bool hungUp) {
    if (greeting.isEmpty() && hungUp)
        return {PeerFailure::LoginCut, 0, QString()};
    QString quoted;
    for (const QChar c : greeting.left(QuotedGreetingChars))
        quoted += c.isPrint() ? c : QChar(u'?');
    return {PeerFailure::NotDovel, 0, quoted};
}

// Compares in a time that does not depend on where the bytes differ, so that an
// observer of the answer's timing learns nothing about a proof.
bool sameBytes(const QByteArray& a, const QByteArray& b) {
    if (a.size() != b.size())
        return false;
    unsigned char difference = 0;
    for (int i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

} // namespace

bool LoginHandshake::Version::atLeast(int major, int minor, int patch) const {
    if (this->major != major)
        return this->major > major;
    if (this->minor != minor)
        return this->minor > minor;
    return this->patch >= patch;
}

QString LoginHandshake::greeting() {
    return QStringLiteral("Heliotrope ") + QString::fromUtf8(version());
}

bool LoginHandshake::parseGreeting(const QString& line, Version& out) {
    const QRegularExpression expression(
        QStringLiteral("^Heliotrope (1|2)\\.(\\d+)\\.(\\d+)(-(.+))?$"));
    const QRegularExpressionMatch match = expression.match(line);
    if (!match.hasMatch())
        return false;
    out.major = match.captured(1).toInt();
    out.minor = match.captured(2).toInt();
    out.patch = match.captured(3).toInt();
    out.suffix = match.captured(5);
    return true;
}

QByteArray LoginHandshake::digest(const QByteArray& challenge, const QByteArray& key) {
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(challenge.left(ChallengeSize / 2));
    hash.addData(key);
    hash.addData(challenge.mid(ChallengeSize / 2, ChallengeSize / 2));
    return hash.result();
}

bool LoginHandshake::puts(const QString& text) {
    return link.write((text + QLatin1Char('\n')).toUtf8());
}

bool LoginHandshake::serve(const QByteArray& key,
                           const std::function<void(bool, const QString&)>& verdict) {
    // From the system's cryptographic source: a challenge an observer could predict
    // would let a recorded proof be replayed.
    QByteArray challenge(ChallengeSize, '\0');
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(challenge.data()),
                                          ChallengeSize / int(sizeof(quint32)));
    const QByteArray expected = digest(challenge, key);

    if (!puts(greeting()) || !link.write(challenge))
        return false;

    QString user = link.line();
    if (user.isEmpty())
        return false; // the peer stalled or went away: no answer
    if (user == UserName) {
        // An old client sends no version line.
        link.peerVersion(Version{1, 9, 0, QString()});
    } else {
        Version peer;
        if (!parseGreeting(user, peer))
            return refuse(verdict, user);
        link.peerVersion(peer);
        user = link.line();
    }

    const QByteArray proof = link.readData(DigestSize);
    if (proof.size() != DigestSize)
        return false;
    if (sameBytes(user.toUtf8(), UserName.toUtf8()) & sameBytes(proof, expected)) {
        verdict(true, user);
        return puts(QStringLiteral("ok"));
    }
    return refuse(verdict, user);
}

bool LoginHandshake::refuse(const std::function<void(bool, const QString&)>& verdict,
                            const QString& user) {
    // Before the answer: a peer that reconnects at once must find the refusal counted.
    verdict(false, user);
    puts(WrongLogin);
    return false;
}

bool LoginHandshake::logIn(const QByteArray& key, const QString& suffix, PeerFailure& why) {
    const QString first = link.line();
    Version peer;
    if (!parseGreeting(first, peer)) {
        Basalt::Trace::warning("Unknown server version '%s', expected \"Heliotrope (1|2).*.*\"",
                               first.toUtf8().constData());
        why = greetingFailure(first, link.hungUp());
        return false;
    }
    link.peerVersion(peer);

    const QByteArray head = link.readData(ChallengeSize / 2);
    if (head.size() != ChallengeSize / 2)
        return false;
    const QByteArray tail = link.readData(ChallengeSize / 2);
    if (tail.size() != ChallengeSize / 2)
        return false;
    const QByteArray proof = digest(head + tail, key);

    QString versionLine = greeting();
    if (!suffix.isEmpty())
        versionLine += QLatin1Char('-') + suffix;
    if (peer.atLeast(1, 9, 1) && !puts(versionLine))
        return false;
    if (!puts(UserName) || !link.write(proof))
        return false;

    const QString answer = link.line();
    if (answer != QLatin1String("ok")) {
        Basalt::Trace::warning("Remote host sent handshake error: %s", answer.toUtf8().constData());
        if (answer == WrongLogin)
            why = {PeerFailure::LoginRefused, 0, QString()};
        return false;
    }
    return true;
}

} // namespace Dovel
