// The web helpers on a real store.

#include "msgapi/web.h"

#include <gtest/gtest.h>

#include <string>

#include "cfmapi.h"
#include "msgapi/status.h"
#include "support/store.h"

namespace {

using test::define_number;
using test::define_text;

void define_version(const std::string &value) {
  test::define(CFM_AREA_EQUIPMENT, CFM_EQUIP_SOFTWARE_VERSION, CFM_TYPE_TEXT, 32, value);
}

void define_handled(char value) {
  test::define(CFM_AREA_APP_DATA, CFM_APPDATA_PRIVACY_HANDLED, CFM_TYPE_BYTES, 1, {&value, 1});
}

void define_account(uint32_t instance, const char *name, uint32_t level) {
  const ORP_DB_KEY_ST key = {CFM_OBJ_WEB_USER, instance};
  if (name != nullptr) define_text(CFM_PARA_WEB_USER_NAME, name, key);
  define_number(CFM_PARA_WEB_USER_LEVEL, level, key);
}

std::string stored_text(uint32_t id) {
  char text[68] = "unreadable";
  ORP_DBGetPara(nullptr, id, text, sizeof text);
  return text;
}

TEST(AccountLevel, IsThatOfTheFirstAccountWithTheCurrentName) {
  uint32_t level = 99;
  EXPECT_EQ(0x30000u, ORP_WEB_GetCurAccountLevel(nullptr));
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, ORP_WEB_GetCurAccountLevel(&level));
  define_text(CFM_PARA_CURRENT_USER_NAME, "admin");
  EXPECT_EQ(0u, ORP_WEB_GetCurAccountLevel(&level)) << "no accounts";
  define_account(1, "Admin", 1);
  define_account(2, nullptr, 7);
  EXPECT_EQ(1u, ORP_WEB_GetCurAccountLevel(&level));
  EXPECT_EQ(99u, level);

  define_account(5, "admin", 4);
  define_account(6, "admin", 5);

  EXPECT_EQ(0u, ORP_WEB_GetCurAccountLevel(&level));
  EXPECT_EQ(4u, level);
}

TEST(FirstLogin, LooksAtTheFirstAccountOfLevel2) {
  EXPECT_EQ(0u, ORP_WEB_CheckFirstLogin()) << "no store";
  define_account(1, "a", 1);
  EXPECT_EQ(1u, ORP_WEB_CheckFirstLogin()) << "no account of level 2";

  define_account(2, "b", 2);
  EXPECT_EQ(0u, ORP_WEB_CheckFirstLogin()) << "flag cannot be read";
  const ORP_DB_KEY_ST second = {CFM_OBJ_WEB_USER, 2};
  define_number(CFM_PARA_WEB_USER_FIRST_LOGIN, 1, second);
  EXPECT_EQ(0u, ORP_WEB_CheckFirstLogin());
  define_number(CFM_PARA_WEB_USER_FIRST_LOGIN, 0, second);
  define_account(3, "c", 2);
  EXPECT_EQ(1u, ORP_WEB_CheckFirstLogin());

  CFM_StoreRemove(CFM_AREA_PARAMETER, CFM_OBJ_WEB_USER, 1, CFM_PARA_WEB_USER_LEVEL);
  EXPECT_EQ(0u, ORP_WEB_CheckFirstLogin()) << "a level on the way cannot be read";
}

TEST(Guide, SkipsThePasswordWhenForcedAndOn) {
  EXPECT_EQ(0u, ORP_WEB_ForceGuideIsEnabled());
  EXPECT_EQ(0u, ORP_WEB_IsGuideStatus());
  define_version("other");
  define_number(CFM_PARA_FORCE_GUIDE, 1);
  define_number(CFM_PARA_GUIDE_STATUS, 2);
  EXPECT_EQ(1u, ORP_WEB_ForceGuideIsEnabled());
  EXPECT_EQ(0u, ORP_WEB_IsGuideStatus());
  EXPECT_EQ(0u, ORP_WEB_IsSkipCheckPwd());
  define_number(CFM_PARA_GUIDE_STATUS, 1);

  testing::internal::CaptureStdout();
  EXPECT_EQ(1u, ORP_WEB_IsSkipCheckPwd());
  EXPECT_EQ("the login password is not verified during the force guide.",
            testing::internal::GetCapturedStdout());
}

TEST(Guide, IsSwitchedOffOnTheSpecifiedVersion) {
  define_number(CFM_PARA_FORCE_GUIDE, 1);
  define_number(CFM_PARA_GUIDE_STATUS, 1);
  EXPECT_EQ(0u, ORP_WEB_IsSpecifiedIniVersion()) << "item cannot be read";
  define_version("K7210-402-CUST 10.0.5.1(C233");
  EXPECT_EQ(0u, ORP_WEB_IsSpecifiedIniVersion());
  define_version("K7210-402-CUST 10.0.5.1(C233)SP");
  EXPECT_EQ(1u, ORP_WEB_IsSpecifiedIniVersion());

  EXPECT_EQ(0u, ORP_WEB_IsSkipCheckPwd());
  uint32_t forced = 1;
  EXPECT_EQ(CFM_OK, ORP_DBGetPara(nullptr, CFM_PARA_FORCE_GUIDE, &forced, sizeof forced));
  EXPECT_EQ(0u, forced);
}

TEST(Language, PrefersTheWholeCodeThenTheFirstTwoLetters) {
  const struct {
    const char *browser, *code;
  } kCases[] = {{"PT_BR", "pt_br"}, {"pt", "pt_pt"},    {"xx", "en_us"},    {"ZH-TW", "zh_cn"},
                {"en-GB", "en_us"}, {"zh_hk", "zh_hk"}, {"ES-mx", "es_es"}, {"t", "en_us"},
                {"", "en_us"},      {"ky", "ky_kg"},    {"ae", "en_us"}};
  for (const auto &each : kCases) {
    EXPECT_STREQ(each.code, ORP_SYSINFO_GetStandLangStr(each.browser)) << each.browser;
  }
  EXPECT_STREQ("en_us", ORP_SYSINFO_GetStandLangStr(nullptr));
  EXPECT_EQ(ORP_SYSINFO_GetStandLangStr("zh_cn"), ORP_SYSINFO_GetStandLangStr("zh"))
      << "the first of the two";
}

TEST(StoredAddress, IsReadByNumber) {
  char buffer[64] = "untouched";
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_URLSTORE_GetUrl(7, nullptr, 64));
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_URLSTORE_GetUrl(8, buffer, 64));
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_URLSTORE_GetUrl(0, buffer, 64));
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, ORP_URLSTORE_GetUrl(7, buffer, 64));
  EXPECT_STREQ("untouched", buffer);

  define_text(CFM_PARA_STORED_ADDRESS, "http://a/", {}, 256);
  EXPECT_EQ(CFM_ERR_TOO_SMALL, ORP_URLSTORE_GetUrl(7, buffer, 9));
  EXPECT_EQ(0u, ORP_URLSTORE_GetUrl(7, buffer, 10));
  EXPECT_STREQ("http://a/", buffer);
}

TEST(StoredText, IsWrittenOnlyWhenItDiffers) {
  testing::internal::CaptureStdout();
  EXPECT_NE(0u, SetCHARParamToDB(CFM_PARA_PRIVACY_VERSION, nullptr));
  EXPECT_EQ("Mic_SetCHARParamToDB pszInvalue NULL", testing::internal::GetCapturedStdout());

  testing::internal::CaptureStdout();
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, SetCHARParamToDB(CFM_PARA_PRIVACY_VERSION, "x"));
  EXPECT_EQ("DBGetPara ERROR return [196614]\nORP_DBSetPara ERROR return [196614]\n",
            testing::internal::GetCapturedStdout());

  define_text(CFM_PARA_PRIVACY_VERSION, "old");
  EXPECT_EQ(0u, SetCHARParamToDB(CFM_PARA_PRIVACY_VERSION, "new"));
  EXPECT_EQ("new", stored_text(CFM_PARA_PRIVACY_VERSION));
  EXPECT_EQ(0u, SetCHARParamToDB(CFM_PARA_PRIVACY_VERSION, "new"));
  EXPECT_NE(0u, SetCHARParamToDB(CFM_PARA_PRIVACY_VERSION, std::string(68, 'x').c_str()));
}

TEST(PrivacyNotice, GetsItsFirstVersionUnlessHandled) {
  EXPECT_EQ(0u, DeviceGDPRcheckfirststatus()) << "cannot be read";
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, DeviceGDPRfirestVersion());
  define_text(CFM_PARA_PRIVACY_VERSION, "");
  define_handled(1);
  EXPECT_EQ(0u, DeviceGDPRfirestVersion());
  EXPECT_EQ("", stored_text(CFM_PARA_PRIVACY_VERSION));

  define_handled(0);
  EXPECT_EQ(1u, DeviceGDPRcheckfirststatus());
  EXPECT_EQ(0u, DeviceGDPRfirestVersion());
  EXPECT_EQ("2016-10", stored_text(CFM_PARA_PRIVACY_VERSION));

  define_text(CFM_PARA_PRIVACY_VERSION, "2020-01");
  EXPECT_EQ(0u, DeviceGDPRfirestVersion());
  EXPECT_EQ("2020-01", stored_text(CFM_PARA_PRIVACY_VERSION));
}

}  // namespace
