// The filter object: created by ks.sys's filter Create dispatch, freed with
// the filter's object bag.
#include "controls/filter.h"

#include "device/device.h"
#include "pageable.h"
#include "pooltag.h"

using namespace kv;

namespace {

// The filter context's first value: the property handlers give it meaning.
constexpr ULONG kFilterDefaultValue = 15;

}  // namespace

void* CCaptureFilter::operator new(decltype(sizeof(0)) cb) noexcept
{
    return ExAllocatePoolWithTag(NonPagedPoolNx, cb, kTagFilter);
}

void CCaptureFilter::operator delete(void* p) noexcept
{
    if (p != nullptr) {
        ExFreePoolWithTag(p, kTagFilter);
    }
}

// An open filter counts against idle power-down only while the idle scheme
// is enabled, and asks for D0 so that the camera is powered before the first
// pin is created.
CCaptureFilter::CCaptureFilter(PKSFILTER pKsFilter, CCaptureDevice* pDevice)
    : m_pDevice(pDevice),
      m_pKsFilter(pKsFilter),
      m_DefaultValue(kFilterDefaultValue),
      m_TunnelPending(0),
      m_CurrentFormatIndex(0)
{
    m_pDevice->m_pCaptureFilter = this;
    if (m_pDevice->m_Idle.m_IdlePowerEnabled != 0) {
        InterlockedIncrement(reinterpret_cast<volatile LONG*>(&m_pDevice->m_Idle.m_OpenFilterCount));
        m_pDevice->m_Idle.RequestPowerUp();
    }
}

// The count goes down on every close, whatever the idle setting: with idle
// power disabled the count is never read, so its going below zero there is
// harmless.
CCaptureFilter::~CCaptureFilter()
{
    InterlockedDecrement(reinterpret_cast<volatile LONG*>(&m_pDevice->m_Idle.m_OpenFilterCount));
    // The back pointer names the most recent filter; it must not outlive it.
    if (m_pDevice->m_pCaptureFilter == this) {
        m_pDevice->m_pCaptureFilter = nullptr;
    }
}

void CCaptureFilter::Cleanup(PVOID pContext)
{
    delete static_cast<CCaptureFilter*>(pContext);
}

NTSTATUS CCaptureFilter::DispatchCreate(PKSFILTER pKsFilter, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    PageableCallTooHigh();
    PKSDEVICE pKsDevice = KsFilterGetDevice(pKsFilter);
    ASSERT(pKsDevice != NULL);
    auto* pDevice = static_cast<CCaptureDevice*>(pKsDevice->Context);
    ASSERT(pDevice != NULL);

    CCaptureFilter* pFilter = new CCaptureFilter(pKsFilter, pDevice);
    if (pFilter == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = KsAddItemToObjectBag(pKsFilter->Bag, pFilter, CCaptureFilter::Cleanup);
    if (!NT_SUCCESS(status)) {
        delete pFilter;
        return status;
    }
    pKsFilter->Context = pFilter;
    return STATUS_SUCCESS;
}
