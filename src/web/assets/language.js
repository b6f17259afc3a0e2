// In front of every page's own script: the language, which only the home page changes. These
// scripts run in whatever browser is at hand, so nothing newer than async functions is used.

const LANGUAGE_KEY = 'preferredLanguage';

// Anything but the two languages counts as absent. Where site data is blocked, the storage throws.
function storedLanguage() {
  try {
    return localStorage.getItem(LANGUAGE_KEY) === 'en' ? 'en' : 'ru';
  } catch (error) {
    return 'ru';
  }
}

// Where it cannot be stored, the choice lasts as long as the page.
function storeLanguage(lang) {
  try {
    localStorage.setItem(LANGUAGE_KEY, lang);
  } catch (error) {
    console.warn('The language is not stored:', error);
  }
}

// Gives each element its text; an id that is not on the page is skipped.
function fillTexts(lang, texts, elementIds) {
  document.documentElement.lang = lang;
  for (const [key, id] of Object.entries(elementIds)) {
    const element = document.getElementById(id);
    if (element) element.textContent = texts[lang][key];
  }
}
