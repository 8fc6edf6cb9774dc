#include "tools/mqtt/Standby.h"

#include <algorithm>
#include <utility>

namespace {

// In seconds. A heartbeat comes every half second.
const double LEASE = 1.5;
const double SPREAD = 0.25;   // between claims
const double CLAIM_TIME = 1;  // a claim that has not come back for that long is repeated
const double GRACE = 1.5;     // for another bridge to take over
const double PARTNER_TIME = 2;

}  // namespace

Standby::Standby(uint32_t number) : m_silence(LEASE + SPREAD * (number % 16) / 16) {}

void Standby::Begin() {
    m_is_active = false;
    m_is_claiming = false;
    m_is_free = false;
    m_own_sign = {};
    m_heard = Now();
}

void Standby::Claimed() {
    m_claimed = Now();
    m_is_claiming = true;
    m_is_free = false;
}

bool Standby::TakeOwnClaim() {
    if (!std::exchange(m_is_claiming, false)) {
        return false;
    }
    m_is_active = true;
    m_is_holder = true;
    return true;
}

// While this bridge is active, those of an earlier one may still be on their way.
void Standby::TakeSign(bool has_claim) {
    m_heard = Now();
    m_is_free = false;
    if (has_claim || !m_is_active) {
        m_is_active = false;
        m_is_holder = false;
    }
}

void Standby::TakeWaitingSign(bool fit) {
    m_partner = fit ? Now() : TimePoint();
}

void Standby::Leave() {
    m_is_active = false;
    m_is_holder = false;
    m_heard = Now();
}

// From when it is noticed: this bridge itself may have been stopped.
void Standby::Tend() {
    m_cut_off = IsCutOff() ? std::min(m_cut_off, Now()) : TimePoint::max();
}

bool Standby::MayClaim(bool has_other) const {
    if (m_is_active || m_own_sign <= After(-LEASE) || Now() < Later(m_claimed, CLAIM_TIME)) {
        return false;
    }
    const bool resumes = m_is_holder && !has_other;
    return m_is_free || resumes || m_own_sign >= Later(m_heard, m_silence);
}

TimePoint Standby::NextSign() const {
    const TimePoint due = Later(m_heard, m_silence);
    return m_is_active || due <= Now() ? TimePoint::max() : due;
}

bool Standby::MayDrive() const {
    return m_is_active && m_own_sign > After(-LEASE);
}

bool Standby::IsAlone() const {
    return IsCutOff() && m_cut_off <= After(-GRACE);
}

bool Standby::HasPartner() const {
    return m_partner > After(-PARTNER_TIME);
}
