/*
 * Model information that needs care in C: a model without _MODEL_INFO_ still
 * compiles and reports no words, and words holding quotes, backslashes, a
 * trigraph and a carriage return arrive exactly as the file spells them.
 */
#include <string.h>

#include "check.h"
#include "noinfo.h"
#include "escapes.h"

int main(void)
{
    const model_info_t *none = get_coeff_noinfo.getter_info(NULL);
    CHECK(none->word_num == 0 && none->word_list == NULL);
    CHECK(get_coeff_noinfo.getter_q("w", NULL, 0) != NULL);

    const model_info_t *info = get_coeff_escapes.getter_info(NULL);
    CHECK(info->word_num == 3);
    CHECK(strcmp(info->word_list[0], "say\"hi\"") == 0);
    CHECK(strcmp(info->word_list[1], "back\\slash") == 0);
    CHECK(strcmp(info->word_list[2], "what?\?=") == 0);
    CHECK(strcmp(info->info_str, "m_v1_say\"hi\"_3_0.5_0.25_back\\slash_4_0.1236_0_what\?\?=_1_1_2\r") == 0);
    CHECK(info->win_list[1] == 4 && info->thresh_list[3] == 0.0f && info->thresh_list[5] == 2.0f);
    return check_status();
}
