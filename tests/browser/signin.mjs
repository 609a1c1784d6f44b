// The sign-in as a person sees it: kzv, the stand-in's page and a real browser.
//
//   node signin.mjs PLAYWRIGHT-CORE KZV KZV-SERVICE BUNDLE [SCREENSHOT-FOLDER]
//
// With a folder the pages are also saved there as pictures. run.sh fetches PLAYWRIGHT-CORE (its index.mjs) and starts
// this. Ends with status 77 and the reason when there is no browser.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { createInterface } from 'node:readline';
import { pathToFileURL } from 'node:url';

const skipped = 77;
const patience = 30_000;
const desk = { width: 900, height: 760 };
const browserPath = [process.env.KZV_CHROMIUM, '/usr/bin/chromium', '/usr/bin/chromium-browser', '/usr/bin/google-chrome']
  .find((path) => path && existsSync(path));

function skip(reason) {
  console.log(`SKIPPED: ${reason}`);
  process.exit(skipped);
}

/// A program of ours: its lines as they come, its end.
class Program {
  constructor(path, args, environment) {
    this.process = spawn(path, args, { env: { ...process.env, ...environment } });
    this.output = '';
    this.errors = '';
    this.lines = createInterface({ input: this.process.stdout })[Symbol.asyncIterator]();
    this.process.stderr.on('data', (bytes) => (this.errors += bytes));
    this.ended = new Promise((resolve) => this.process.on('close', (status) => resolve(status)));
  }

  async line() {
    const { value } = await bounded(this.lines.next(), `a line of output (${this.errors})`);
    this.output += `${value}\n`;
    return value;
  }

  /// Waits until standard error holds what `pattern` matches.
  complaint(pattern) {
    const seen = new Promise((resolve) => {
      const look = () => pattern.test(this.errors) && resolve();
      this.process.stderr.on('data', look);
      look();
    });
    return bounded(seen, `${pattern} on standard error`);
  }

  async end() {
    const rest = async () => {
      for await (const line of this.lines) this.output += `${line}\n`;
      return this.ended;
    };
    return bounded(rest(), `the end of a program (${this.output}${this.errors})`);
  }

  /// Lets it clear up after itself.
  async stop() {
    this.process.kill('SIGTERM');
    await bounded(this.ended, 'a program to stop').catch(() => this.process.kill('SIGKILL'));
  }
}

function bounded(promise, what) {
  let timer;
  const late = new Promise((_, reject) => (timer = setTimeout(() => reject(new Error(`waited too long for ${what}`)), patience)));
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

const [playwright, kzvPath, servicePath, bundle, pictures] = process.argv.slice(2);
if (!browserPath) skip('no Chromium (apt-get install chromium)');
const { chromium } = await import(pathToFileURL(resolve(playwright)));

const home = mkdtempSync(join(tmpdir(), 'kzv-browser-'));
const programs = [];
let browser;

function start(path, args) {
  const program = new Program(path, args, environment);
  programs.push(program);
  return program;
}

const environment = {
  HOME: home,
  KZV_HOME: home,
  KZV_TOKEN_STORE: 'file',
  KZV_BUNDLE: bundle,
  KZV_SIGN_IN_PORT: '0',
};

async function picture(page, name) {
  if (!pictures) return;
  const { y, height } = await page.locator('main').boundingBox();
  const clip = { x: 0, y: 0, width: desk.width, height: 2 * y + height };
  await page.screenshot({ path: join(pictures, `${name}.png`), clip });
}

/// What a page owes anyone who reads it: a language, a title that is its heading, no need to scroll sideways on the
/// narrowest telephone, and a dark ground for those who asked for one.
async function assertReadable(page) {
  assert.equal(await page.locator('html').getAttribute('lang'), 'en');
  assert.equal(await page.title(), await page.getByRole('heading', { level: 1 }).innerText());
  await page.setViewportSize({ width: 320, height: 640 });
  assert.ok((await page.evaluate(() => document.documentElement.scrollWidth)) <= 320, 'wider than a telephone');
  await page.setViewportSize(desk);
  const ground = () => page.evaluate(() => getComputedStyle(document.body).backgroundColor);
  const inLight = await ground();
  await page.emulateMedia({ colorScheme: 'dark' });
  assert.notEqual(await ground(), inLight);
  await page.emulateMedia({ colorScheme: 'light' });
}

/// The sign-in page of a `kzv link` that has just begun.
async function beginLinking(context) {
  const kzv = start(kzvPath, ['link', '--no-browser']);
  const page = await context.newPage();
  page.setDefaultTimeout(patience);
  await page.goto(await kzv.line());
  return { kzv, page };
}

async function accounts() {
  const kzv = start(kzvPath, ['--json', 'accounts']);
  assert.equal(await kzv.end(), 0, kzv.errors);
  return kzv.output.trim().split('\n').filter(Boolean).map((line) => JSON.parse(line).label);
}

async function cancelLinksNothing(context) {
  const { kzv, page } = await beginLinking(context);
  await page.getByRole('button', { name: 'Cancel' }).click();
  await page.getByText('declined').waitFor();
  await assertReadable(page);
  assert.equal(await kzv.end(), 1);
  assert.match(kzv.errors, /kzv: link: .*declined/);
  assert.deepEqual(await accounts(), []);
}

async function allowLinksTheAccount(context) {
  const { kzv, page } = await beginLinking(context);
  await page.getByRole('heading', { name: 'Allow access to your files?' }).waitFor();
  await page.getByText('read the content of your files').waitFor();
  await assertReadable(page);
  await picture(page, 'signin-page');
  await page.getByLabel('Ada').check();
  await page.getByRole('button', { name: 'Allow' }).click();
  await page.getByText('You can close this window').waitFor();
  assert.match(page.url(), /^http:\/\/localhost:\d+\//);
  await assertReadable(page);
  await picture(page, 'signed-in-page');
  assert.equal(await kzv.end(), 0, kzv.errors);
  assert.match(kzv.output, /^linked Ada \(/m);
  assert.deepEqual(await accounts(), ['Ada']);
}

async function aSecondAccountStandsBesideTheFirst(context) {
  const { kzv, page } = await beginLinking(context);
  await page.getByLabel('Bob').check();
  await page.keyboard.press('Enter'); // the page works without a mouse
  await page.getByText('You can close this window').waitFor();
  assert.equal(await kzv.end(), 0, kzv.errors);
  assert.deepEqual(await accounts(), ['Ada', 'Bob']);
}

async function enterTriesAgainWhenTheTokensDidNotCome(context) {
  await fetch(`${environment.KZV_SERVICE_URL}/admin/faults`, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify([{ route: 'oauth2/token', times: 1, status: 500, body: 'no' }]),
  });
  const { kzv, page } = await beginLinking(context);
  await page.getByRole('button', { name: 'Allow' }).click();
  await kzv.complaint(/not linked yet: .*press Enter to try again/);
  kzv.process.stdin.write('\n');
  assert.equal(await kzv.end(), 0, kzv.errors);
  assert.deepEqual(await accounts(), ['Ada', 'Bob']);
}

async function theCodeCanBeTypedIn(context) {
  const kzv = start(kzvPath, ['link', '--type-code']);
  const page = await context.newPage();
  page.setDefaultTimeout(patience);
  await page.goto(await kzv.line());
  await page.getByLabel('Another account').check();
  await page.getByLabel('Name', { exact: true }).fill('Dora');
  await page.getByLabel('E-mail address').fill('dora@example.com');
  await page.getByRole('button', { name: 'Allow' }).click();
  kzv.process.stdin.write(`${await page.locator('#code').innerText()}\n`);
  assert.equal(await kzv.end(), 0, kzv.errors);
  assert.deepEqual(await accounts(), ['Ada', 'Bob', 'Dora']);
}

try {
  const service = start(servicePath, [
    '--listen', '127.0.0.1:0', '--admin',
    '--account', 'Ada:ada@example.com:ada-token',
    '--account', 'Bob:bob@example.com:bob-token',
  ]);
  environment.KZV_SERVICE_URL = (await service.line()).replace('listening on ', '');
  browser = await chromium.launch({
    executablePath: browserPath,
    env: { ...process.env, HOME: home },
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync'],
  });
  // Without scripts: the page must not need any.
  const context = await browser.newContext({ javaScriptEnabled: false, viewport: desk });
  for (const scenario of [cancelLinksNothing, allowLinksTheAccount, aSecondAccountStandsBesideTheFirst,
    enterTriesAgainWhenTheTokensDidNotCome, theCodeCanBeTypedIn]) {
    await scenario(context);
    console.log(`passed: ${scenario.name}`);
  }
} finally {
  await browser?.close();
  await Promise.all(programs.map((program) => program.stop()));
  rmSync(home, { recursive: true, force: true });
}
