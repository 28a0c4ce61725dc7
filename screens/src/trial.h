#pragma once

#include "auth-screens-reason.h"
#include "hand.h"

#include <functional>

namespace AuthScreens {

/** An attempt as a screen sees it: begun once, ended once. */
class Trial : public QObject
{
    Q_OBJECT

public:
    /** It ends without a reason to be told. */
    static constexpr int Silently = -1;

    /**
     * @param start has the attempt made; tell() is to be called with how that has ended
     * @param stop  called when it has ended, or ends
     */
    Trial(std::function<void(const Wire::Attempt &)> start, std::function<void()> stop);
    /** With @p hand for both. */
    explicit Trial(Hand *hand);

    /**
     * Has @p data judged. It is a text or bytes, and the copies made here are overwritten.
     *
     * @param request  the rest of what is asked for
     * @param obstacle why nothing can be judged now, or Silently
     * @return false, and nothing happens, while another is under way
     */
    bool begin(Wire::Attempt request, const QString &data, int obstacle);
    bool begin(Wire::Attempt request, const QByteArray &data, int obstacle);
    /** Ends it, and emits refused() unless @p reason is Silently. */
    void end(int reason);
    void tell(Hand::End end);

    /** How a thing that has ended so is told. */
    static Reason reasonOf(Hand::End end);

    bool isBusy() const;
    bool isOverdue() const;

Q_SIGNALS:
    void busyChanged();
    void overdueChanged();
    /** The daemon has accepted the secret. It goes on until end(). */
    void accepted();
    void refused(AuthScreens::Reason reason);

private:
    bool start(Wire::Attempt *request, bool isSendable, int obstacle);

    const std::function<void(const Wire::Attempt &)> m_start;
    const std::function<void()> m_stop;
    bool m_isBusy = false;
    bool m_isOverdue = false;
    int m_obstacle = Silently;
    QTimer m_refusal;
    QTimer m_patience;
};

} // namespace AuthScreens
