// Light or dark: as the system is, as chosen, and light on paper.

const systemIsDark = matchMedia('(prefers-color-scheme: dark)');

// A page opened from a file may have no storage; the choice then holds for as long as the page is open.
function storedTheme() {
  try {
    return localStorage.getItem('kestrun-report-theme') ?? 'auto';
  } catch {
    return 'auto';
  }
}

function storeTheme(choice) {
  try {
    localStorage.setItem('kestrun-report-theme', choice);
  } catch {
    return;
  }
}

function applyTheme(choice, isPrinted = false) {
  const isDark = !isPrinted && (choice === 'dark' || (choice === 'auto' && systemIsDark.matches));
  document.documentElement.dataset.theme = isDark ? 'dark' : 'light';
}

// A printed page is light, and its canvas has to be drawn before the printer sees it.
function onThemeChange(repaint) {
  const chosen = () => document.querySelector('#theme input:checked')?.value ?? 'auto';
  const apply = (isPrinted) => {
    applyTheme(chosen(), isPrinted);
    repaint();
  };
  byId('theme').addEventListener('change', () => {
    storeTheme(chosen());
    apply(false);
  });
  systemIsDark.addEventListener('change', () => apply(false));
  window.addEventListener('beforeprint', () => apply(true));
  window.addEventListener('afterprint', () => apply(false));
}
