// Which controller belongs to an access mode.
#include "ControllerFactory.h"

#include <memory>

#include <gtest/gtest.h>

#include "NfsMain.h"
#include "RuntimeParam.h"
#include "ServerIdentity.h"

TEST(ControllerFactoryTest, AControllerReportsTheModeItWasMadeFor) {
    for (const int iMode : {kAccessModeInternal, kAccessModeServer, kAccessModeClient}) {
        const std::unique_ptr<CNfsMain> pMain = CreateController(iMode, "factory", 5);
        ASSERT_NE(pMain, nullptr) << "mode " << iMode;
        EXPECT_EQ(pMain->GetAccessMode(), iMode);
        EXPECT_STREQ(pMain->GetRuntimeParam()->GetID(), "factory") << "mode " << iMode;
        EXPECT_EQ(pMain->GetRuntimeParam()->GetLogControl(), 5) << "mode " << iMode;
    }
}

TEST(ControllerFactoryTest, ANumberThatIsNoModeMakesNone) {
    for (const int iMode : {-1, 3, 7}) {
        EXPECT_EQ(CreateController(iMode, "factory", 0), nullptr) << "mode " << iMode;
    }
}
