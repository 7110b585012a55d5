// Memory runs out in the middle of an operation. VCTK_GetLastError then returns the same number as the operation.
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string_view>
#include <thread>

#include "FaultPoints.h"
#include "Row.h"
#include "TestStore.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"

namespace {

using fault_points::How;

struct Operation : Row {
    INT (*pfnCall)(HANDLE);
};

// The results of an operation whose nth fault point (FaultPoints.h) failed.
struct FaultedCall {
    INT nResult = 0;
    INT nLastError = 0;
    bool fThrew = false;
    bool fFailed = false;  // the operation had so many fault points
    bool fReached = true;  // the fault did not replace one of the toolkit's own functions
};

FaultedCall RunWithFault(const Operation& operation, HANDLE hObject, long nPoint, How how) {
    FaultedCall outcome;
    std::thread([&] {
        fault_points::Arm(fault_points::Where::kHere, nPoint, how);
        try {
            outcome.nResult = operation.pfnCall(hObject);
            outcome.nLastError = VCTK_GetLastError(hObject);
        } catch (const std::bad_alloc&) {
            outcome.fThrew = true;
        }
        fault_points::Disarm();
        const char* const pszFailed = fault_points::Failed();
        outcome.fFailed = pszFailed != nullptr;
        outcome.fReached = !outcome.fFailed || !std::string_view(pszFailed).starts_with("VCTK_");
    }).join();
    return outcome;
}

class LastErrorMemoryTest : public testing::TestWithParam<Operation> {};

TEST_P(LastErrorMemoryTest, IsTheNumberThatTheOperationReturned) {
    const TempDirectory directory;
    MakeIdentity(directory, {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
    const ToolkitClient client("file:" + MakePemStore(directory, "s.pem", {"ec"}));
    ASSERT_TRUE(client.IsOpen());
    for (const How how : {How::kOnce, How::kFromThereOn}) {
        int cOutOfMemory = 0;
        long nPoint = 0;
        for (bool fFailed = true; fFailed;) {
            const FaultedCall outcome = RunWithFault(GetParam(), client.Handle(), ++nPoint, how);
            fFailed = outcome.fFailed;
            EXPECT_FALSE(outcome.fThrew) << nPoint;
            if (outcome.fReached) {
                EXPECT_EQ(outcome.nLastError, outcome.nResult) << nPoint;
                cOutOfMemory += outcome.nResult == VCTK_E_OUT_OF_MEMORY ? 1 : 0;
            }
        }
        EXPECT_GT(cOutOfMemory, 0) << "no allocation failed in " << nPoint << " runs";
    }
}

INSTANTIATE_TEST_SUITE_P(
    , LastErrorMemoryTest,
    testing::Values(Operation{"Succeeds", [](HANDLE h) { return VCTK_SetChooseSingleCert(h, 0); }},
                    Operation{"FailsWithADetail", [](HANDLE h) { return VCTK_SetDigestAlg(h, "SHA-1"); }},
                    Operation{"Filter", [](HANDLE h) { return VCTK_AddFilter(h, VCTK_FILTER_SERIAL, "no number"); }},
                    Operation{"NothingToSign", [](HANDLE h) { return VCTK_P1Sign(h, "", 0); }},
                    Operation{"NothingSigned",
                              [](HANDLE h) {
                                  int nLength = 0;
                                  return VCTK_GetP7SignResult(h, nullptr, &nLength);
                              }}),
    RowName);

}  // namespace
