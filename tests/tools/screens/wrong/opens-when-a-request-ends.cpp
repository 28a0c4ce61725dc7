// Takes a request that has ended without discredit() for a success; but discredit() comes after that.

#include "../screen.h"

namespace {

class OpensWhenARequestEnds : public Screen
{
    void handleProgress() override
    {
        if (client()->progress())
            m_hasFailed = false;
        else if (!m_hasFailed)
            claim(true);
    }

    void handleDiscredit() override
    {
        m_hasFailed = true;
    }

    bool m_hasFailed = false;
};

const Wrong<OpensWhenARequestEnds> opensWhenARequestEnds("opens-when-a-request-ends", "ordinary", "false-claim");

} // namespace
