"""An operator who is neither an administrator nor the cluster's user runs a server of their own (Windows)."""
import web_support
from web_support import WebTest

from operators import OperatorTest


class Reading(WebTest, OperatorTest):
    def test_an_operator_s_server_shows_the_picture_even_if_the_lock_is_held(self):
        api = self.cluster_of_the_system()
        web = self.serve(program=self.as_operator("shmnmweb"))
        self.assertEqual(web.get("/healthz").status, 200)
        self.shown(web)
        api.ok("shmnm_rwlock", 10_000)
        api.ok("shmnm_setclstat", 7)
        shown = web.until("/picture.json", lambda answer: answer.json["cluster"]["clstat"] == 7)
        self.assertEqual(shown.status, 200)

    def test_the_server_of_a_user_outside_the_group_shows_nothing(self):
        self.cluster_of_the_system("S-1-5-32-551")
        web = self.serve(program=self.as_operator("shmnmweb"))
        refused = web.get("/picture.json")
        self.assertGreaterEqual(refused.status, 500)
        self.assertIn("(error 5); run this as the user who runs the cluster", refused.text)
        self.assertNotIn("beta", refused.text)


if __name__ == "__main__":
    web_support.main()
