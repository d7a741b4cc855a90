// The device's code for a browser's language.

#include <strings.h>

#include <cstring>

#include "msgapi/web.h"

namespace msgapi::device {
namespace {

// In the order of the table that the set-up programs share (its short codes are not used here). The
// first entry of a language also stands for its two letters alone.
constexpr const char *kCodes[] = {
    "en_us", "fr_fr", "pt_pt", "zh_cn", "es_es", "it_it", "de_de", "ar_sa", "ru_ru",
    "tr_tr", "vi_vn", "uk_ua", "zh_hk", "zh_tw", "sv_se", "es_ar", "sl_sl", "sk_sk",
    "sr_cs", "ro_ro", "pl_pl", "no_no", "mk_mk", "lv_lv", "ko_kr", "ja_jp", "id_id",
    "he_il", "hu_hu", "el_gr", "fi_fi", "fa_fa", "et_ee", "nl_nl", "da_dk", "cs_cz",
    "hr_hr", "bg_bg", "pt_br", "zh_cn", "lt_lt", "sq_al", "mt_mt", "ky_kg", "th_th",
};
static_assert(sizeof kCodes / sizeof kCodes[0] == 45);

const char *standard_code(const char *language) {
  for (const char *code : kCodes) {
    if (::strcasecmp(code, language) == 0) return code;
  }
  for (const char *code : kCodes) {
    if (::strncasecmp(code, language, 2) == 0) return code;
  }
  return kCodes[0];
}

}  // namespace
}  // namespace msgapi::device

using namespace msgapi;
using namespace msgapi::device;

extern "C" const char *ORP_SYSINFO_GetStandLangStr(const char *language) {
  return language == nullptr ? kCodes[0] : standard_code(language);
}
