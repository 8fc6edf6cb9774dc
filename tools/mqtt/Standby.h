// Which of the bridges of a site that stand by for each other is active.
#pragma once

#include <cstdint>

#include "tools/base/Time.h"

// A bridge is active from when its claim of the site has come back from the broker, and drives
// outputs while its heartbeats come back. The others wait until no heartbeat of it has come for
// longer than that. A claim takes the site from an earlier one.
//
// Messages keep their order. So who has sent a heartbeat that long after the last one of the active
// bridge, and gets its own back first, knows that this was not just late: the active one does not
// drive any more, whatever has stopped or cut it off. Only the rates of both clocks must agree.
class Standby {
public:
    // number: of this bridge. Two that wait do not claim the site at the same moment.
    explicit Standby(uint32_t number);

    // A connection to the broker begins.
    void Begin();

    // The last heartbeat of this bridge that has come back was sent then.
    void TakeOwnSign(TimePoint sent) { m_own_sign = sent; }

    // This bridge has claimed the site; its claim has come back, and is the latest.
    // TakeOwnClaim() returns whether this made it the active one.
    void Claimed();
    bool TakeOwnClaim();

    // A heartbeat of another bridge that is active. has_claim: it has the latest claim.
    void TakeSign(bool has_claim);

    // A bridge that stands by is there. fit: it could take over.
    void TakeWaitingSign(bool fit);

    // The active bridge has left the site to whoever stands by; it was this one.
    void TakeLeave() { m_is_free = true; }
    void Leave();

    // Call it in every turn.
    void Tend();

    // Whether this bridge may claim the site now. has_other: another bridge has the latest claim.
    bool MayClaim(bool has_other) const;

    // When a heartbeat should be sent, at the latest, to take over in time.
    TimePoint NextSign() const;

    bool IsActive() const { return m_is_active; }

    // Whether nobody else drives the outputs.
    bool MayDrive() const;

    // Whether this bridge was the last to be active, as far as it knows. IsCutOff(): perhaps it is
    // no longer, its heartbeats do not come back. IsAlone(): for so long that another one, if there
    // is one, has taken over.
    bool IsHolder() const { return m_is_holder; }
    bool IsCutOff() const { return m_is_holder && !MayDrive(); }
    bool IsAlone() const;

    // Whether another bridge is there that would take over at once.
    bool HasPartner() const;

private:
    const double m_silence;  // seconds
    bool m_is_active = false;
    bool m_is_holder = false;  // nobody else has been active since
    bool m_is_claiming = false;
    bool m_is_free = false;
    TimePoint m_own_sign{};
    TimePoint m_heard{};  // from the active bridge, or began to listen
    TimePoint m_claimed{};
    TimePoint m_partner{};                   // one that could take over was last heard
    TimePoint m_cut_off = TimePoint::max();  // since when
};
