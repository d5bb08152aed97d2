"""The account that scripts/setup.sh creates for the sign-in tests."""
import pwd

TEST_USER = "tellwyn-test"
TEST_PASSWORD = "Tellwyn-Test-Passw0rd"


def test_account_exists():
    try:
        pwd.getpwnam(TEST_USER)
        return True
    except KeyError:
        return False
