// Before anything is painted: the theme that was chosen last, which is otherwise the system's.
(() => {
  const NAMES = ["system", "light", "dark"];
  const KEY = "lumd-console-theme";
  const root = document.documentElement;
  const chosen = () => NAMES.includes(localStorage.getItem(KEY)) ? localStorage.getItem(KEY) : "system";
  const apply = () => { root.dataset.theme = chosen(); };
  apply();
  addEventListener("DOMContentLoaded", () => {
    const button = document.getElementById("theme");
    const tell = () => { button.textContent = `Theme: ${chosen()}`; };
    tell();
    button.addEventListener("click", () => {
      localStorage.setItem(KEY, NAMES[(NAMES.indexOf(chosen()) + 1) % NAMES.length]);
      apply();
      tell();
    });
  });
})();
