// A C++ consumer of the three tensor modes, one generated pair of each in
// one program: getter_3dq is called directly, getter_3d through the typed
// accessors of dl_lib_coefgetter_if.h. One generated header is included as
// it is, the others inside extern "C": both ways link to the C records.
#include "check.h"
#include "tensors_q.h"
extern "C" {
#include "tensors_f.h"
#include "tensors_in.h"
}

int main()
{
    // bias.npy holds (i * 37 - 50) % 101 / 8 with i from 0: -6.25, -1.625, ...
    const dl_matrix3dq_t *q = get_coeff_tensors_q.getter_3dq("bias", nullptr, 0);
    CHECK(q && q->c == 5 && q->exponent == -12 && q->item[0] == -25599 && q->item[1] == -6655);
    const dl_matrix3d_t *f = dl_get_coeff_3d(&get_coeff_tensors_f, "bias", nullptr, 0);
    CHECK(f && f->c == 5 && f->item[0] == -6.25f && f->item[1] == -1.625f);
    CHECK(dl_get_coeff_3d(&get_coeff_tensors_f, "gray", nullptr, 0) == nullptr);
    const dl_matrix3du_t *u = dl_get_coeff_3du(&get_coeff_tensors_in, "rgb", nullptr, 0);
    CHECK(u && u->h == 2 && u->w == 2 && u->c == 3 && u->item[0] == 156 && u->item[11] == 199);
    CHECK(dl_get_coeff_3du(&get_coeff_tensors_q, "rgb", nullptr, 0) == nullptr);
    return check_status();
}
