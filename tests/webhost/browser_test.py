#!/usr/bin/python3
"""The account pages in a real browser: headless Chromium driven through Selenium.

browser_test.py --webd TVC_WEBD --static DIR --sandbox TVC_SANDBOX [--screenshots DIR] [SCENARIO...]

Each scenario gets a fresh sample device: the script starts tvc-webd in its own device sandbox
(plain HTTP on a loopback port the kernel picks, read from --port-file) and stops it afterwards,
also when the scenario fails.  TVC_PAM_DIR (the sample device's PAM modules) reaches the sandbox
through the environment.  A screenshot of every page visited goes to --screenshots (default
$TVC_WEBHOST_SCREENSHOTS, else ./webhost-screenshots).  Exits 77 (skipped) when no sandbox can
be built, unless CI=true, where that is a failure.  Run it with /usr/bin/python3: Selenium
comes from Debian's package.
"""
import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import traceback
import urllib.error
import urllib.request

LOGIN_REFUSED = ('Login refused: wrong name or password, or the account is locked. '
                 'After 3 failed logins an account is locked until a user manager unlocks it.')
# The nastiest name the library accepts: markup, both quotes, an entity and a comment opener (no
# whitespace, '/' or ',', so no tag could carry an attribute anyway).
MARKUP_NAME = '<i>x"\'&amp;<!--'
WAIT_S = 10
WINDOW = (1200, 800)


def skip_or_fail(reason):
    print(f'browser_test: {reason}')
    sys.exit(1 if os.environ.get('CI') == 'true' else 77)


try:
    from selenium import webdriver
    from selenium.common.exceptions import TimeoutException, WebDriverException
    from selenium.webdriver.chrome.options import Options
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select, WebDriverWait
except ImportError as error:  # the script's own checks come first: CI must see this too
    skip_or_fail(f'Selenium is missing ({error}); run with /usr/bin/python3')


class Server:
    """tvc-webd in a fresh device sandbox."""

    def __init__(self, args, scratch):
        self.args = args
        self.scratch = scratch
        self.process = None
        self.url = None
        self.log_path = os.path.join(scratch, 'tvc-webd.log')

    def start(self):
        port_file = os.path.join(self.scratch, 'port')
        if os.path.exists(port_file):
            os.remove(port_file)
        command = [self.args.sandbox, '--', self.args.webd, '--http', '--listen', '127.0.0.1', '--port', '0',
                   '--port-file', port_file, '--static', self.args.static, '--login-pause', '1']
        with open(self.log_path, 'ab') as log:
            self.process = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                            start_new_session=True)
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError(f'tvc-webd ended with status {self.process.returncode}:\n{self.log()}')
            port = read_port(port_file)
            if port:
                self.url = f'http://127.0.0.1:{port}'
                if http(self.url, 'GET', '/api/session')[0] == 401:
                    return
            time.sleep(0.1)
        raise RuntimeError(f'tvc-webd did not answer within 30 s:\n{self.log()}')

    def stop(self):
        if self.process is None or self.process.poll() is not None:
            return
        # The sandbox and the server share the session started for them.
        os.killpg(self.process.pid, signal.SIGTERM)
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()

    def log(self):
        with open(self.log_path, errors='replace') as log:
            return ''.join(log.readlines()[-40:])


def read_port(path):
    try:
        with open(path) as file:
            text = file.read().strip()
    except OSError:
        return None
    return text if text.isdigit() and text != '0' else None


def http(url, method, path, body=None):
    """(status, parsed answer or None) of one request outside the browser."""
    data = None if body is None else json.dumps(body).encode()
    request = urllib.request.Request(url + path, data=data, method=method,
                                     headers={'Content-Type': 'application/json'} if data else {})
    try:
        with urllib.request.urlopen(request, timeout=10) as answer:
            status, text = answer.status, answer.read()
    except urllib.error.HTTPError as error:
        status, text = error.code, error.read()
    except (urllib.error.URLError, ConnectionError):
        return None, None
    try:
        return status, json.loads(text) if text else None
    except ValueError:
        return status, None


def browser():
    options = Options()
    options.binary_location = '/usr/bin/chromium'
    for argument in ('--headless=new', '--no-sandbox', '--disable-dev-shm-usage', '--disable-gpu', '--no-first-run', '--password-store=basic'):
        options.add_argument(argument)
    # The console, to find scripts and styles the pages' Content-Security-Policy refused.
    options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
    driver = webdriver.Chrome(service=Service(executable_path='/usr/bin/chromedriver'), options=options)
    driver.set_window_size(*WINDOW)
    return driver


class Page:
    """One browser session on the server, with the steps the scenarios are written in."""

    def __init__(self, test, label):
        self.test = test
        self.label = label
        self.driver = browser()
        test.drivers.append(self)

    @property
    def url(self):
        return self.test.server.url

    def path(self):
        return self.driver.current_url.split('?')[0].rsplit('/', 1)[-1]

    def open(self, page):
        self.driver.get(f'{self.url}/{page}')

    def wait(self, condition, what):
        try:
            return WebDriverWait(self.driver, WAIT_S).until(lambda driver: condition())
        except TimeoutException:
            raise AssertionError(f'{self.label}: waited {WAIT_S} s for {what}; at {self.driver.current_url}') from None

    def wait_page(self, page):
        self.wait(lambda: self.path() == page and self.ready(), f'page {page}')

    def ready(self):
        return self.driver.execute_script('return document.readyState') == 'complete'

    def find(self, css):
        return self.driver.find_element(By.CSS_SELECTOR, css)

    def text(self, css):
        return self.find(css).text

    def visible(self, css):
        elements = self.driver.find_elements(By.CSS_SELECTOR, css)
        return bool(elements) and elements[0].is_displayed()

    def fill(self, css, value):
        field = self.find(css)
        field.clear()
        field.send_keys(value)
        return field

    def console_faults(self):
        """Console lines telling of a refused script or style, or of a script error."""
        lines = [entry['message'] for entry in self.driver.get_log('browser')]
        return [line for line in lines if 'Content Security Policy' in line or 'Uncaught' in line]

    def shot(self, name):
        """The whole page: the window grows to the page's height for the picture."""
        os.makedirs(self.test.args.screenshots, exist_ok=True)
        height, chrome = self.driver.execute_script(
            'return [document.documentElement.scrollHeight, window.outerHeight - window.innerHeight]')
        self.driver.set_window_size(WINDOW[0], max(WINDOW[1], min(height + chrome, 4000)))
        self.driver.save_screenshot(os.path.join(self.test.args.screenshots, f'{name}.png'))
        self.driver.set_window_size(*WINDOW)

    def login(self, name, password):
        """Types into the login form and submits it with Enter, as a keyboard user does."""
        self.open('index.html')
        self.wait(lambda: self.path() == 'index.html' and self.ready(), 'the login page')
        self.fill('#name', name)
        self.fill('#password', password).send_keys(Keys.ENTER)

    def login_to(self, name, password, page='accounts.html'):
        self.login(name, password)
        self.wait_page(page)

    def change_password(self, current, new):
        """Fills the own password form and submits it with Enter in its last field."""
        self.fill('#current', current)
        self.fill('#new-password', new)
        self.fill('#confirm', new).send_keys(Keys.ENTER)

    def nav(self):
        """The header's links: [(label, current?)], once the script has put them there."""
        links = 'header nav a'
        self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, links), 'the navigation')
        return [(link.text, link.get_attribute('aria-current') == 'page')
                for link in self.driver.find_elements(By.CSS_SELECTOR, links)]

    def message(self):
        return self.text('#message')

    def wait_message(self, text):
        self.wait(lambda: self.message() == text, f'the message "{text}" (shown: "{self.message()}")')

    # The account list.
    def rows(self):
        self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, '#accounts tbody tr'), 'the account list')
        return {row.get_attribute('data-name'): row for row in self.driver.find_elements(By.CSS_SELECTOR, '#accounts tbody tr')}

    def row(self, name):
        rows = self.rows()
        assert name in rows, f'{self.label}: no row {name!r} in {sorted(rows)}'
        return rows[name]

    def open_account(self, name):
        """The account's page from the list, through its Edit button."""
        self.open('accounts.html')
        self.wait_page('accounts.html')
        self.row(name).find_element(By.CSS_SELECTOR, '.edit').click()
        self.wait_page('account.html')
        self.wait(lambda: self.text('#detail-name') == name, f'the page of {name!r}')

    def create(self, name, profile, password, must_change):
        self.open('create.html')
        self.wait_page('create.html')
        self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, '#new-profile option'), 'the profiles')
        self.fill('#new-name', name)
        Select(self.find('#new-profile')).select_by_visible_text(profile)
        self.fill('#new-password', password)
        if self.find('#new-must-change').is_selected() != must_change:
            self.find('#new-must-change').click()
        self.find('#create').click()
        self.wait_page('account.html')
        self.wait(lambda: self.text('#detail-name') == name, f'the new account {name!r}')

    def audit_texts(self):
        """The text column of the audit log, newest first."""
        rows = '#audit tbody tr'
        self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, rows), 'the audit events')
        return [row.find_elements(By.TAG_NAME, 'td')[-1].text for row in self.driver.find_elements(By.CSS_SELECTOR, rows)]

    def detail(self, field):
        return self.text(f'#detail-{field}')

    def api(self, method, path, body=None):
        """A fetch from the page with the session's CSRF token: [status, answer text]."""
        script = '''
            const [method, path, body, done] = arguments;
            fetch('/api/session').then((r) => r.json()).then((session) => fetch(path, {
                method, headers: {'Content-Type': 'application/json', 'X-CSRF-Token': session.csrf},
                body: body === null ? undefined : JSON.stringify(body)}))
              .then((r) => r.text().then((text) => done([r.status, text])))
              .catch((error) => done([0, String(error)]));'''
        return self.driver.execute_async_script(script, method, path, body)


class Test:
    def __init__(self, args, scratch):
        self.args = args
        self.server = Server(args, scratch)
        self.drivers = []

    def run(self, scenario):
        self.server.start()
        try:
            scenario(self)
            for page in self.drivers:
                faults = page.console_faults()
                assert not faults, f'{page.label}: console:\n' + '\n'.join(faults)
        except Exception:
            for page in self.drivers:
                try:
                    page.shot(f'failed-{scenario.__name__}-{page.label}')
                except WebDriverException:
                    pass
            raise
        finally:
            for page in self.drivers:
                page.driver.quit()
            self.drivers = []
            self.server.stop()


# --- scenarios -----------------------------------------------------------------------------------

def lockout(test):
    """Three refused logins lock the account: the fourth, with the right password, is refused alike."""
    page = Page(test, 'operator')
    page.open('index.html')
    page.wait_page('index.html')
    # The server confines the page to its own origin; the page works within that.
    with urllib.request.urlopen(f'{test.server.url}/index.html', timeout=10) as answer:
        assert answer.headers['Content-Security-Policy'] == "default-src 'self'", answer.headers
    # The keyboard's focus shows.
    page.find('#name').send_keys(Keys.TAB)
    focused = page.driver.switch_to.active_element
    assert focused.get_attribute('id') == 'password'
    assert page.driver.execute_script('return getComputedStyle(arguments[0]).outlineStyle', focused) != 'none'
    page.shot('login')
    for attempt in range(3):
        page.login('operator', f'Wrong#{attempt}')
        page.wait_message(LOGIN_REFUSED)
    page.login('operator', 'Operator#2026')
    page.wait_message(LOGIN_REFUSED)
    assert page.path() == 'index.html'
    assert 'error' in page.find('#message').get_attribute('class')
    page.shot('login-refused')
    # Really locked, as the manager sees it.
    admin = Page(test, 'admin')
    admin.login_to('admin', 'Admin#2026')
    row = admin.row('operator')
    assert 'locked' in row.text, row.text
    assert row.find_elements(By.CSS_SELECTOR, '.unlock')
    admin.shot('accounts-locked')


def forced_change(test):
    """An account made with must-change: every page leads to the change, weak passwords are refused next to the field."""
    admin = Page(test, 'admin')
    admin.login_to('admin', 'Admin#2026')
    admin.create('fresh', 'viewers', 'Fresh#2026', must_change=True)
    admin.driver.quit()
    test.drivers.remove(admin)

    page = Page(test, 'fresh')
    page.login_to('fresh', 'Fresh#2026', 'change-password.html')
    for elsewhere in ('accounts.html', 'me.html', 'audit.html'):
        page.open(elsewhere)
        page.wait_page('change-password.html')
    assert not page.driver.find_elements(By.CSS_SELECTOR, 'header nav'), 'the forced change offers a way elsewhere'
    page.change_password('Fresh#2026', 'short')
    page.wait(lambda: page.text('#new-password-error'), 'the rule message')
    assert page.text('#new-password-error') == 'The new password is too short.', page.text('#new-password-error')
    assert page.find('#new-password').get_attribute('aria-invalid') == 'true'
    page.shot('change-password-refused')
    page.change_password('Fresh#2026', 'Gentle#Harbour7')
    page.wait_page('accounts.html')
    page.wait_message('Your password is changed.')
    assert 'fresh' in page.rows()
    page.shot('accounts-after-change')
    # The new password holds, the old one does not.
    assert http(test.server.url, 'POST', '/api/login', {'name': 'fresh', 'password': 'Fresh#2026'})[0] == 401
    assert http(test.server.url, 'POST', '/api/login', {'name': 'fresh', 'password': 'Gentle#Harbour7'})[0] == 200


def manager(test):
    """A user manager runs an account through its life and finds each step in the audit log."""
    page = Page(test, 'admin')
    page.login_to('admin', 'Admin#2026')
    assert page.nav() == [('Accounts', True), ('New account', False), ('My account', False), ('Audit log', False)], page.nav()
    # The keyboard reaches the links, and its focus shows.
    page.find('header .brand').send_keys(Keys.TAB)
    focused = page.driver.switch_to.active_element
    assert focused.get_attribute('id') == 'nav-accounts', focused.get_attribute('outerHTML')
    assert page.driver.execute_script('return getComputedStyle(arguments[0]).outlineStyle', focused) != 'none'
    page.shot('accounts')
    page.open('create.html')
    page.wait_page('create.html')
    page.shot('create')
    page.create('worker', 'operators', 'Worker#2026', must_change=False)
    assert page.detail('profile') == 'operators'
    page.shot('account')

    page.fill('#rename-name', 'worker2').send_keys(Keys.ENTER)
    page.wait(lambda: page.detail('name') == 'worker2', 'the new name')
    page.wait_message('The account is renamed.')

    Select(page.find('#profile-select')).select_by_visible_text('viewers')
    page.find('#profile-save').click()
    page.wait(lambda: page.detail('profile') == 'viewers', 'the new profile')

    page.find('#toggle-active').click()
    page.wait(lambda: page.detail('state').startswith('disabled'), 'the account disabled')
    page.find('#toggle-active').click()
    page.wait(lambda: page.detail('state').startswith('enabled'), 'the account enabled')

    for attempt in range(3):
        assert http(test.server.url, 'POST', '/api/login', {'name': 'worker2', 'password': f'Bad#{attempt}'})[0] == 401
    page.driver.refresh()
    page.wait(lambda: 'locked' in page.detail('state'), 'the account locked')
    assert page.visible('#unlock')
    page.shot('account-locked')
    page.find('#unlock').click()
    page.wait(lambda: 'locked' not in page.detail('state'), 'the account unlocked')
    assert not page.visible('#unlock')
    assert http(test.server.url, 'POST', '/api/login', {'name': 'worker2', 'password': 'Worker#2026'})[0] == 200

    page.find('#remove').click()
    alert = WebDriverWait(page.driver, WAIT_S).until(lambda driver: driver.switch_to.alert)
    assert 'worker2' in alert.text
    alert.accept()
    page.wait_page('accounts.html')
    page.wait_message('The account “worker2” is removed.')
    assert 'worker2' not in page.rows()

    page.find('#nav-audit').click()
    page.wait_page('audit.html')
    texts = page.audit_texts()
    page.shot('audit')
    # The library's own texts for each step.
    for step in ('created <worker>', 'name changed from <worker> to <worker2>',
                 'profile of <worker2> changed from <operators> to <viewers>', 'deactivated <worker2>',
                 'activated <worker2>', 'unlocked <worker2>', 'deleted <worker2>'):
        assert f'User account - {step}' in texts, f'no audit event "{step}" in:\n' + '\n'.join(texts)


def viewer(test):
    """A viewer sees no management buttons; the API refuses its create with 403."""
    page = Page(test, 'viewer')
    page.login_to('viewer', 'Viewer#2026')
    rows = page.rows()
    assert {'admin', 'viewer', 'operator'} <= set(rows), sorted(rows)
    assert not page.driver.find_elements(By.CSS_SELECTOR, '#accounts button'), 'the viewer has buttons'
    assert page.nav() == [('Accounts', True), ('My account', False)], page.nav()
    page.shot('accounts-viewer')
    rows['admin'].find_element(By.CSS_SELECTOR, 'a').click()
    page.wait_page('account.html')
    page.wait(lambda: page.detail('name') == 'admin', "admin's page")
    shown = [css for css in ('#rename-form', '#profile-form', '#state-actions', '#reset-form', '#remove-section')
             if page.visible(css)]
    assert not shown, f'the viewer sees {shown}'
    page.shot('account-viewer')
    status, text = page.api('POST', '/api/accounts', {'name': 'intruder', 'profileId': 2, 'password': 'Intruder#2026',
                                                      'mustChange': False, 'active': True})
    assert status == 403, (status, text)
    assert json.loads(text) == {'classCode': 1, 'errorCode': 302}, text
    page.open('audit.html')
    page.wait_message('You are not allowed to do this.')
    page.open('me.html')
    page.wait_page('me.html')
    page.wait(lambda: page.text('#me-name') == 'viewer', 'the own account')
    assert page.nav() == [('Accounts', False), ('My account', True)], page.nav()
    # Its own password it may change, with the current one.
    page.change_password('Wrong#2026', 'Orchard#Beacon4')
    page.wait(lambda: page.text('#current-error') == 'The current password is wrong.', 'the wrong current password')
    page.shot('me')
    page.change_password('Viewer#2026', 'Orchard#Beacon4')
    page.wait_message('Your password is changed.')
    # The renewed session goes on.
    page.open('accounts.html')
    assert 'viewer' in page.rows()


def session_end(test):
    """A session ends when another session changes its account: the next page load is the login."""
    admin = Page(test, 'admin')
    viewer_page = Page(test, 'viewer')
    viewer_page.login_to('viewer', 'Viewer#2026')
    admin.login_to('admin', 'Admin#2026')

    admin.open_account('viewer')
    admin.fill('#reset-password', 'Meadow#Lantern9')
    admin.find('#reset-must-change').click()
    admin.find('#reset').click()
    admin.wait_message('The password is set.')
    viewer_page.driver.refresh()
    viewer_page.wait_page('index.html')
    viewer_page.wait_message('Your session has ended. Please log in.')
    viewer_page.shot('login-session-ended')

    viewer_page.login_to('viewer', 'Meadow#Lantern9')
    admin.fill('#rename-name', 'viewer2').send_keys(Keys.ENTER)
    admin.wait(lambda: admin.detail('name') == 'viewer2', 'the rename')
    viewer_page.open('me.html')
    viewer_page.wait_page('index.html')
    # The admin's own session goes on.
    admin.open('accounts.html')
    assert 'viewer2' in admin.rows()


def markup_name(test):
    """An account named with markup shows as text on the list and its page."""
    page = Page(test, 'admin')
    page.login_to('admin', 'Admin#2026')
    page.create(MARKUP_NAME, 'viewers', 'Markup#2026x', must_change=False)
    assert page.find('#account-name').text == MARKUP_NAME
    assert page.find('#rename-name').get_attribute('value') == MARKUP_NAME
    assert not page.driver.find_elements(By.CSS_SELECTOR, 'main i'), 'the name became markup'
    assert MARKUP_NAME in page.driver.title
    page.shot('account-markup')
    page.open('accounts.html')
    row = page.row(MARKUP_NAME)
    assert row.find_element(By.CSS_SELECTOR, 'a').text == MARKUP_NAME
    assert not page.driver.find_elements(By.CSS_SELECTOR, '#accounts i'), 'the name became markup'
    page.shot('accounts-markup')
    page.open('audit.html')
    page.wait_page('audit.html')
    assert f'User account - created <{MARKUP_NAME}>' in page.audit_texts()
    assert not page.driver.find_elements(By.CSS_SELECTOR, '#audit i'), 'the name became markup'
    page.shot('audit-markup')
    # The rename form carries it back unchanged: a no-op rename to the same name is not needed;
    # a profile change proves the stored name and the page's agree.
    page.open_account(MARKUP_NAME)
    Select(page.find('#profile-select')).select_by_visible_text('operators')
    page.find('#profile-save').click()
    page.wait(lambda: page.detail('profile') == 'operators', 'the profile change')
    # Renamed behind the page's back: its next change is refused as stale and the page shows the
    # account as it now is.
    uid = page.detail('uid')
    status, text = page.api('PATCH', f'/api/accounts/{uid}', {'name': MARKUP_NAME, 'newName': 'plain'})
    assert status == 200, (status, text)
    page.find('#toggle-active').click()
    page.wait_message('The account was changed by someone else meanwhile. The page now shows it as it is; check and try again.')
    assert page.detail('name') == 'plain' and page.detail('state').startswith('enabled')
    page.shot('account-stale')


SCENARIOS = [lockout, forced_change, manager, viewer, session_end, markup_name]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--webd', required=True)
    parser.add_argument('--static', required=True)
    parser.add_argument('--sandbox', required=True)
    parser.add_argument('--screenshots', default=os.environ.get('TVC_WEBHOST_SCREENSHOTS',
                                                                os.path.join(os.getcwd(), 'webhost-screenshots')))
    parser.add_argument('scenario', nargs='*', help='run only these scenarios')
    args = parser.parse_args()
    args.webd, args.static, args.sandbox = (os.path.abspath(path) for path in (args.webd, args.static, args.sandbox))

    probe = subprocess.run([args.sandbox, '--', 'true'], capture_output=True, text=True)
    if probe.returncode != 0:
        skip_or_fail(probe.stderr.strip() or f'the sandbox exited with status {probe.returncode}')
    if not os.environ.get('TVC_PAM_DIR'):
        print('browser_test: TVC_PAM_DIR is not set: the sandbox keeps the host\'s PAM stack')

    chosen = [s for s in SCENARIOS if not args.scenario or s.__name__ in args.scenario]
    # Scratch space in the directory the test runs in (the build tree), not the host's /tmp.
    scratch = tempfile.mkdtemp(prefix='browser_test.', dir=os.getcwd())
    failed = []
    try:
        for scenario in chosen:
            started = time.monotonic()
            test = Test(args, scratch)
            try:
                test.run(scenario)
                print(f'PASS {scenario.__name__} ({time.monotonic() - started:.1f} s)', flush=True)
            except Exception:
                failed.append(scenario.__name__)
                print(f'FAIL {scenario.__name__}: {scenario.__doc__}', flush=True)
                traceback.print_exc()
                print(f'--- tvc-webd log ---\n{test.server.log()}', flush=True)
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    print(f'{len(chosen) - len(failed)} of {len(chosen)} scenarios passed; screenshots in {args.screenshots}')
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
